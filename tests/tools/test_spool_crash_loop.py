"""A sender of the spool killed at any moment loses nothing: test_spool_crash_loop.py TOOL [SEED]

Each round keeps a 50 MB folder in the spool (its upload meets a closed port), starts
`--send-spooled` against a running site, kills it with SIGKILL after a random part of the time a
send takes, and sends again to the end. In the end every round's archive is on the site byte for
byte: once, or once more where the kill fell between the site's store and the item's removal
from the spool, a duplicate under the site's de-duplicated name. The spool is empty: no items, no
locks, nothing left over.
"""
import hashlib
import os
import pathlib
import random
import re
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
ITEM = re.compile(r"\d{8}-\d{9}-[0-9a-f]{8}")
CLOSED_PORT_CONFIG = """<?xml version="1.0" encoding="UTF-8"?>
<Configuration><Server><Name>127.0.0.1:{0}</Name><Protocol>http</Protocol><Port>{0}</Port>
<Timeout>30</Timeout></Server></Configuration>
"""


def digest(path):
    sha = hashlib.sha256()
    with open(path, "rb") as file:
        for block in iter(lambda: file.read(1 << 20), b""):
            sha.update(block)
    return sha.hexdigest()


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
        self.away = self.tool_in("away")
        (self.away.parent / "config.xml").write_text(
            CLOSED_PORT_CONFIG.format(closed.getsockname()[1]))
        self.there = self.tool_in("there")
        self.site = self.work / "site"
        site = subprocess.Popen([sys.executable, SITE, "--root", self.site, "--quiet",
                                 "--write-config", self.there.parent, "--watch-stdin"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(site.communicate)
        self.addCleanup(site.kill)
        site.stdout.readline()  # the port, once the site listens

    def tool_in(self, name):
        folder = self.work / name
        folder.mkdir()
        return pathlib.Path(shutil.copy2(TOOL, folder))

    def run_tool(self, tool, *args):
        return subprocess.run([tool, "--no-progress", "--spool=%s" % self.spool, *args],
                              capture_output=True, encoding="utf-8")

    def keep(self, folder, marker):
        """Uploads the folder, marked so that each round's archive is its own, to the closed
        port; returns the digest of the packed item the spool keeps."""
        (folder / "round.txt").write_text(marker)
        before = set(os.listdir(self.spool)) if self.spool.exists() else set()
        kept = self.run_tool(self.away, "--retries", "0", "--device-type=0", "--data-type=0",
                             "--location=2", folder)
        self.assertEqual(kept.returncode, 11, kept.stderr)
        (item,) = set(os.listdir(self.spool)) - before
        self.assertRegex(item, ITEM)
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
        print("crash loop: seed=%d; one send of the %d MB item takes %.2f s" % (
            SEED, FOLDER_BYTES // 10**6, send_time), flush=True)
        for turn in range(ROUNDS):
            expected.append(self.keep(folder, "round %d" % turn))
            sender = subprocess.Popen([self.there, "--no-progress", "--spool=%s" % self.spool,
                                       "--send-spooled"], stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0, send_time))
            sender.send_signal(signal.SIGKILL)
            sender.wait()
            self.send()
        left = os.listdir(self.spool)

        # What the site holds: whole archives under its names, and what killed senders cut
        # short, which the site never answered as stored.
        stored = {}
        for entry in os.scandir(self.site / "storage"):
            stored.setdefault(digest(entry.path), []).append(entry.name)
        counts = [len(stored.pop(item, [])) for item in expected]
        rounds = counts[1:]
        delivered = sum(1 for n in rounds if n > 0)
        duplicates = sum(n - 1 for n in rounds if n > 1)
        lost = rounds.count(0)
        print("crash loop: rounds=%d delivered=%d duplicates=%d lost=%d seed=%d" % (
            ROUNDS, delivered, duplicates, lost, SEED), flush=True)
        self.assertTrue(counts[0] == 1 and all(n in (1, 2) for n in rounds), counts)
        self.assertEqual(left, [])  # no item, no lock, nothing half kept or half removed
        answered = (self.site / "uploads.jsonl").read_text()
        for names in stored.values():  # cut short: never named in an answer
            for name in names:
                self.assertNotIn('"stored": "%s"' % name, answered)


if __name__ == "__main__":
    TOOL = sys.argv[1]
    SEED = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(2**32)
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
