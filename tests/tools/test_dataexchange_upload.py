"""dataexchange-upload as users run it: test_dataexchange_upload.py TOOL SHARE_ROOT [unittest]"""
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).parent
SITE = HERE / "../../tools/processing-site/processing_site.py"
TOOL_NAME = "dataexchange-upload"
USAGE = TOOL_NAME + ": %s\nTry '" + TOOL_NAME + " --help' for more information.\n"
STAGE = r"Progress: {0} 0/{1}\n(?:Progress: {0} \d+/{1}\n)*Progress: {0} {1}/{1}\n"


def data(name):  # an expected text from tests/data
    return (HERE / "../data" / name).read_text(encoding="utf-8")


def site_beside_tool(case, *switches):  # a copy of TOOL beside the config.xml of a new site
    work = tempfile.TemporaryDirectory(prefix="dxUploadTool")
    case.addClassCleanup(work.cleanup)
    site = subprocess.Popen([sys.executable, SITE, "--root", work.name, "--quiet", *switches,
                             "--write-config", work.name, "--watch-stdin"],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    case.addClassCleanup(site.communicate)  # closes the pipes
    case.addClassCleanup(site.kill)
    site.stdout.readline()  # the port, once the site listens
    return shutil.copy2(TOOL, work.name), pathlib.Path(work.name, "config.xml")


class ToolTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):  # a site that answers uploads after 20 s
        cls.tool, config = site_beside_tool(cls, "--delay", "upload=20")
        # Its proxy is used only with --use-proxy.
        config.write_text(config.read_text().replace(
            "</Configuration>", "<Proxy><Url>ftp://nowhere</Url></Proxy></Configuration>"))

    def run_tool(self, *args):  # bytes that are not UTF-8 come out as surrogates and back
        done = subprocess.run([self.tool, *args], capture_output=True, encoding="utf-8",
                              errors="surrogateescape")
        return done.returncode, done.stdout, done.stderr

    def test_help_documents_the_exit_statuses(self):
        status, out, _ = self.run_tool("--help")
        self.assertEqual((status, out.endswith(data("help-exit-statuses.txt"))), (0, True), out)

    def test_arguments_decide_exit_status_and_messages(self):
        rows = data("upload-tool-arguments.txt").replace("FILE", shlex.quote(__file__)).replace(
            "NOT_UTF8", "Kalibrierung_\udcd8").splitlines()  # "Ø" in code page 1252
        for args, status, message, *stdout in (r.split(" | ") for r in rows if r[:1] != "#"):
            with self.subTest(args=args):
                code, out, err = self.run_tool(*shlex.split(args))
                self.assertEqual(code, int(status), err)
                self.assertIn(USAGE % message if status == "2" else message, err)
                self.assertTrue(re.fullmatch("".join(stdout), out), out)

    def test_listing_shows_the_values_the_flags_set(self):
        listing = self.run_tool(
            "--data-type=99", "--location", "0", "--serial", str(2**64 - 1), "--email", "a@b.de",
            "--report", "0", "--user", "Zoë", "--user", "Zoë Ång", "--list-options")
        self.assertEqual(listing, (0, data("list-options.txt"), data("list-options-warnings.txt")))

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_upload_prints_progress_and_the_delivered_name(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "brd", "logFile")
        if not os.path.isdir(os.path.join(SHARE_ROOT, "measurement")):  # remove what it makes
            self.addCleanup(shutil.rmtree, os.path.join(SHARE_ROOT, "measurement"))
        os.makedirs(share, exist_ok=True)
        code, out, err = self.run_tool("--device-type=4", "--data-type=6", "--location=1", __file__)
        match = re.fullmatch(STAGE.format("packing", os.path.getsize(__file__)) + STAGE.format(
            "shared folder", 1) + "Delivered as: (.+)\nDestination: shared folder\n", out)
        self.assertTrue(code == 0 and match, out + err)
        for file in [match[1], match[1] + ".info"]:  # fails when that name was not delivered
            self.addCleanup(os.remove, os.path.join(share, file))

    def test_verified_unless_plain_and_debug_lines_only_with_verbose(self):
        tool, _ = site_beside_tool(self, "--empty-body", "upload")  # stores, answers nothing
        verified, plain, verbose = (subprocess.run(
            [tool, *extra, "--device-type=0", "--data-type=0", "--location=2", "--no-progress",
             __file__], capture_output=True, encoding="utf-8") for extra in ([], ["--plain"],
                                                                          ["--plain", "--verbose"]))
        self.assertEqual(verified.returncode, 9)
        self.assertRegex(verified.stderr, "^" + TOOL_NAME + ": the library's last messages:\n"
                         "(.+\n){1,5}Attempt 1 of 3: The server stored nothing: .+ \\(not a "
                         "passing fault: not tried again\\)\n")
        self.assertEqual((plain.returncode, plain.stderr), (0, ""))
        self.assertIn("Received answer \n", verbose.stderr)  # and the unload's lines last:
        self.assertRegex(verbose.stderr, "\n---Recursive: .+\n(---File Found: .+\n)*$")

    def test_what_the_server_says_reaches_the_terminal_escaped(self):
        tool, _ = site_beside_tool(self, "--answer", "upload=cal7\\x1b]0;x\\x07\\xc2\\x9b.zip")
        plain, verified = (subprocess.run(
            [tool, *extra, "--device-type=0", "--data-type=0", "--location=2", "--no-progress",
             "--verbose", __file__], capture_output=True) for extra in (["--plain"], []))
        self.assertIn(b"Stored as: cal7\\x1B]0;x\\x07\\xC2\\x9B.zip\n", plain.stdout)
        self.assertIn(b"answered 'cal7\\x1B]0;x\\x07\\xC2\\x9B.zip'; it holds control",
                      verified.stderr)
        for output in (plain.stdout, plain.stderr, verified.stdout, verified.stderr):
            self.assertNotRegex(output, b"[\x1b\x07\x9b]")

    @unittest.skipUnless(os.name == "posix", "sends SIGINT")
    def test_ctrl_c_while_the_server_is_waited_for_cancels(self):
        tool = subprocess.Popen([self.tool, "--device-type=0", "--data-type=0", "--location=2",
                                 __file__], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                encoding="utf-8")
        next(line for line in tool.stdout if line.startswith("Progress: upload "))  # within 20 s
        tool.send_signal(signal.SIGINT)
        self.assertIn("Upload cancelled by the host\n", tool.communicate()[1])
        self.assertEqual(tool.returncode, 130)


class RetriesAndSpoolTest(unittest.TestCase):
    def test_rows_in_order_against_a_site_busy_five_times(self):
        tool, config = site_beside_tool(self, "--fault", "upload=busy:5")
        work = pathlib.Path(tempfile.mkdtemp(prefix="dxSpool"))
        self.addCleanup(shutil.rmtree, work)
        spool, own = work / "spool", work / "state/dataExchange/spool"
        environments = {"-": {}, "xdg": {"XDG_STATE_HOME": str(work / "state")},
                        "home": {"HOME": str(work / "home")}}
        words = {"SPOOL": re.escape(str(spool)), "OWN": re.escape(str(own)),
                 "HOME": re.escape(str(work / "home/.local/state/dataExchange/spool")),
                 "ITEM": r"\d{8}-\d{9}-[0-9a-f]{8}",
                 "BUSY": r"http://[\d.:]+/uploadFile\.php answered 503 Service Unavailable"}
        environment = {k: v for k, v in os.environ.items() if k != "XDG_STATE_HOME"}
        rows = data("upload-tool-spool.txt").splitlines()
        for env, args, status, *patterns in (map(str.strip, r.split("|")) for r in rows
                                             if r[:1] != "#"):
            with self.subTest(args=args):
                args = [a.replace("SPOOL", str(spool)).replace("FILE", __file__)
                        for a in shlex.split(args)]
                done = subprocess.run([tool, *args], capture_output=True,
                                      encoding="utf-8", env=dict(environment, **environments[env]))
                out = re.sub(r"(?m)^Progress: (?!retry wait).*\n", "", done.stdout)
                stdout, stderr = (re.sub("|".join(words), lambda m: words[m[0]], pattern)
                                  for pattern in patterns)
                self.assertEqual(done.returncode, int(status), done.stderr)
                self.assertRegex(out, "^%s$" % stdout)
                self.assertRegex(done.stderr, "%s%s$" % ("" if stderr else "^", stderr))
        self.assertEqual((os.listdir(spool), os.listdir(own)), ([], []))
        self.assertEqual(len(os.listdir(config.parent / "storage")), 3)  # rows 5, 7 and 10


if __name__ == "__main__":
    TOOL, SHARE_ROOT = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
