"""A sender of the spool killed at any moment loses nothing: test_spool_crash_loop.py TOOL [SEED]

Each round keeps a 50 MB folder in the spool (its upload meets a closed port), kills a
`--send-spooled` after a random part of the time a send takes, and sends again to the end. Every
round's archive must then be on the site once, or twice where the kill fell between the site's
store and the item's removal; the spool must be empty: no items, no locks.
"""
import hashlib
import os
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).parent
SITE = HERE / "../../tools/processing-site/processing_site.py"
ROUNDS = 20
FOLDER_BYTES = 50 * 1000 * 1000
FILES = 4  # the folder's files, packed side by side on the machine's cores


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


class CrashLoopTest(unittest.TestCase):
    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="dxCrashLoop"))
        self.addCleanup(shutil.rmtree, self.work)
        self.spool = self.work / "spool"
        # The tool reads config.xml beside itself: one copy whose server is a port that refuses
        # (bound, never listening, so nothing else can take it), one beside the running site.
        closed = socket.socket()
        self.addCleanup(closed.close)
        closed.bind(("127.0.0.1", 0))
        self.away, self.there = self.tool_in("away"), self.tool_in("there")
        (self.work / "away/config.xml").write_text(
            "<Configuration><Server><Name>127.0.0.1:{0}</Name><Protocol>http</Protocol><Port>{0}"
            "</Port><Timeout>30</Timeout></Server></Configuration>".format(closed.getsockname()[1]))
        self.site = self.work / "site"
        site = subprocess.Popen([sys.executable, SITE, "--root", self.site, "--quiet",
                                 "--write-config", self.there.parent, "--watch-stdin"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(site.communicate)
        self.addCleanup(site.kill)
        site.stdout.readline()  # the port, once the site listens

    def tool_in(self, name):
        (self.work / name).mkdir()
        return pathlib.Path(shutil.copy2(TOOL, self.work / name))

    def run_tool(self, tool, *args):
        return subprocess.run([tool, "--no-progress", "--spool=%s" % self.spool, *args],
                              capture_output=True, encoding="utf-8")

    def keep(self, folder, marker):
        """Keeps the folder, marked as this round's, in the spool; the digest of its archive."""
        (folder / "round.txt").write_text(marker)
        before = set(os.listdir(self.spool)) if self.spool.exists() else set()
        kept = self.run_tool(self.away, "--retries", "0", "--device-type=0", "--data-type=0",
                             "--location=2", folder)
        self.assertEqual(kept.returncode, 11, kept.stderr)
        (item,) = set(os.listdir(self.spool)) - before
        self.assertRegex(item, r"\d{8}-\d{9}-[0-9a-f]{8}")
        return digest(self.spool / item / ("precalibration_%s.zip" % folder.name))

    def send(self):
        sent = self.run_tool(self.there, "--send-spooled")
        self.assertEqual((sent.returncode, sent.stdout.splitlines()[-1]),
                         (0, "Remaining in the spool: 0"), sent.stdout + sent.stderr)

    def test_killed_senders_lose_nothing(self):
        rng = random.Random(SEED)
        folder = self.work / "run"
        folder.mkdir()
        for n in range(FILES):
            (folder / ("frames%d.bin" % n)).write_bytes(rng.randbytes(FOLDER_BYTES // FILES))
        # The time one send takes, from the start of the process to its end: the kills fall in it.
        expected = [self.keep(folder, "measure")]
        started = time.monotonic()
        self.send()
        send_time = time.monotonic() - started
        for turn in range(ROUNDS):
            expected.append(self.keep(folder, "round %d" % turn))
            sender = subprocess.Popen([self.there, "--no-progress", "--spool=%s" % self.spool,
                                       "--send-spooled"], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0, send_time))
            sender.send_signal(signal.SIGKILL)
            sender.wait()
            self.send()
        # What the site holds: whole archives under its names, and what killed senders cut
        # short, which the site never answered as stored.
        stored = {}
        for entry in os.scandir(self.site / "storage"):
            stored.setdefault(digest(entry.path), []).append(entry.name)
        counts = [len(stored.pop(item, [])) for item in expected]
        lost = counts[1:].count(0)
        print("crash loop: seed=%d; a send takes %.2f s; rounds=%d duplicates=%d lost=%d" % (
            SEED, send_time, ROUNDS, sum(counts[1:]) - ROUNDS + lost, lost), flush=True)
        self.assertTrue(counts[0] == 1 and all(n in (1, 2) for n in counts[1:]), counts)
        self.assertEqual(os.listdir(self.spool), [])  # no item, no lock, nothing half kept
        answered = (self.site / "uploads.jsonl").read_text()
        for name in sum(stored.values(), []):  # cut short: never named in an answer
            self.assertNotIn('"stored": "%s"' % name, answered)


if __name__ == "__main__":
    TOOL = sys.argv[1]
    SEED = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(2**32)
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
