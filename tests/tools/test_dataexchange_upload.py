#!/usr/bin/env python3
"""dataexchange-upload as users run it: test_dataexchange_upload.py TOOL SHARE_ROOT [unittest]"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

TOOL = SHARE_ROOT = ""
SITE = os.path.join(os.path.dirname(__file__), "../../tools/processing-site/processing_site.py")
# Exit status per result code; scripts rely on these numbers.
STATUS = {1: 3, 10: 4, 11: 5, 20: 6, 21: 7, 30: 8, 40: 9, -21: 10}
USAGE, CANCELLED = 2, 130
ROW = "%s (%s): %s\n    current %s, min %s, max %s, default %s\n"
PROGRESS = re.compile(r"Progress: (packing|shared folder|upload|job request) (\d+)/(\d+)")
DELIVERED = re.compile(r"Delivered as: (\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d_(.*))")


def run(*args):
    done = subprocess.run([TOOL, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return done.returncode, done.stdout.decode("utf-8"), done.stderr.decode("utf-8")


def write(path, text):
    with open(path, "w") as file:
        file.write(text)
    return path


class ToolTest(unittest.TestCase):
    def test_help_documents_the_exit_statuses(self):
        status, out, _ = run("--help")
        self.assertEqual(status, 0)
        documented = re.findall(r"(?m)^ +(\d+)  result +(-?\d+):", out)
        self.assertEqual({int(result): int(code) for code, result in documented}, STATUS)
        for code, meaning in [(0, "success$"), (USAGE, "usage error"), (CANCELLED, "cancelled")]:
            self.assertRegex(out, r"(?m)^ +%d  %s" % (code, meaning))

    def test_failures_exit_with_their_status_and_messages(self):
        usage = "dataexchange-upload: %s\nTry 'dataexchange-upload --help' for more information.\n"
        missing = os.path.join(os.path.abspath(__file__), "fehlt ü")  # under a file: never there
        cases = [([flag, value, "x"], USAGE, usage % "%s: '%s' is not a number in the option's "
                  "range" % (flag, value)) for flag, value in [
            ("--serial", "12ab"), ("--report", ""), ("--serial", "-1"), ("--serial", str(2**64)),
            ("--location", str(2**32)), ("--device-type", " 2"), ("--device-type", str(2**31))]]
        cases += [
            (["--bogus", "x"], USAGE, usage % "unknown flag '--bogus'"),
            (["x", "--serial"], USAGE, usage % "--serial needs a value"),
            (["a", "b"], USAGE, usage % "more than one path given: 'b'"),
            ([], USAGE, usage % "no file or folder to upload given"),
            (["--list-options", "x"], USAGE, "--list-options does not upload; 'x' was given"),
            ([missing], STATUS[10], "File or folder %s does not exist\n" % missing),
            (["--", "-x"], STATUS[10], "File or folder -x does not exist\n"),
            ([""], STATUS[1], "Empty file or folder name provided\n"),
            (["--data-type", "6", __file__], STATUS[30], "Unhandled value for 'Device type'\n"),
            (["--email", "bad mail", "--user", "u", missing], STATUS[11],
             "Invalid email address: bad mail\nOption 'Email address' cannot be written\n"),
        ]
        for args, status, message in cases:
            with self.subTest(args=args):
                code, out, err = run(*args)
                self.assertEqual((code, out), (status, ""), err)
                self.assertIn(message, err)

    def test_listing_shows_flags_and_clipped_values(self):
        n = "none"
        status, out, err = run(
            "--data-type=99", "--location", "0", "--serial", str(2**64 - 1), "--email", "a@b.de",
            "--report", "0", "--user", "Zoë", "--user", "Zoë Ång", "--list-options")
        self.assertEqual(status, 0, err)
        self.assertEqual(out, "".join(ROW % row for row in [
            ("Data type", "Int32", "Type of data", 6, 0, 6, n),
            ("Device type", "Int32", "Type of the device", -1, 0, 4, n),
            ("Email address", "String", "Email address", '"a@b.de"', n, n, n),
            ("Location", "Uint32", "Location where data will be uploaded to", 1, 1, 3, 3),
            ("Report", "Uint32", "Enable reporting", 0, n, 1, 1),
            ("Serial number", "Uint64", "Serial number of the device", 2**64 - 1, n, n, n),
            ("User", "String", "User name", '"Zoë Ång"', n, n, n)]))
        self.assertEqual(err, "Option 'Data type' was cropped\n"
                              "dataexchange-upload: warning: --data-type stored as 6\n"
                              "Option 'Location' was cropped\n"
                              "dataexchange-upload: warning: --location stored as 1\n")

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_delivery_to_the_shared_folder(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "brd", "logFile")
        made = [share]  # removed afterwards, deepest first; what existed stays
        while not os.path.isdir(os.path.dirname(made[-1])):
            made.append(os.path.dirname(made[-1]))
        for folder in made[::-1] if not os.path.isdir(share) else []:
            self.addCleanup(os.rmdir, folder)
        os.makedirs(share, exist_ok=True)
        work = tempfile.TemporaryDirectory(prefix="dxUploadTool ü ")
        self.addCleanup(work.cleanup)
        for file in ["a.txt", "b ü.csv"]:
            write(os.path.join(work.name, file), file)
        cases = [  # packing counts the files' bytes
            ([work.name + os.sep], "logFile_%s.zip" % os.path.basename(work.name),
             [("packing", 5 + 8), ("shared folder", 1)]),
            (["--no-progress", os.path.join(work.name, "b ü.csv")], "logFile_b ü.csv", []),
        ]
        for args, packed, stages in cases:
            with self.subTest(args=args):
                code, out, err = run("--device-type=4", "--data-type=6", "--location=1", *args)
                self.assertEqual(code, 0, err)
                *lines, delivered, destination = out.splitlines()
                steps = [PROGRESS.fullmatch(line).groups() for line in lines]
                for first in [True, False]:  # each stage counts from 0 up to its total
                    self.assertEqual([(stage, int(total)) for stage, done, total in steps
                                      if done == ("0" if first else total)], stages, out)
                match = DELIVERED.fullmatch(delivered)
                self.assertEqual((match.group(2), destination),
                                 (packed, "Destination: shared folder"))
                for file in [match.group(1), match.group(1) + ".info"]:
                    self.assertTrue(os.path.isfile(os.path.join(share, file)), file)
                    self.addCleanup(os.remove, os.path.join(share, file))


@unittest.skipUnless(os.name == "posix", "sends SIGINT")
class SlowServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        work = tempfile.TemporaryDirectory(prefix="dxUploadToolSite")
        cls.addClassCleanup(work.cleanup)
        # The library reads config.xml beside the program, so the tool runs from a copy.
        host = os.path.join(work.name, "host")
        os.mkdir(host)
        cls.tool = shutil.copy2(TOOL, host)
        site = subprocess.Popen(
            [sys.executable, SITE, "--root", work.name, "--write-config", host, "--quiet",
             "--watch-stdin", "--delay", "upload=20"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        cls.addClassCleanup(site.communicate)  # closes the pipes
        cls.addClassCleanup(site.kill)
        site.stdout.readline()  # the port, once the site listens
        with open(os.path.join(host, "config.xml")) as file:  # used only with --use-proxy
            write(file.name, file.read().replace(
                "</Configuration>", "<Proxy><Url>ftp://nowhere</Url></Proxy></Configuration>"))

    def start(self, *flags):
        return subprocess.Popen(
            [self.tool, "--device-type", "0", "--data-type", "0", "--location", "2", *flags,
             __file__], stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)

    def test_ctrl_c_while_the_server_is_waited_for_cancels(self):
        tool = self.start()
        next(line for line in tool.stdout if line.startswith("Progress: upload "))  # within 20 s
        tool.send_signal(signal.SIGINT)
        err = tool.communicate()[1]
        self.assertEqual(tool.returncode, CANCELLED, err)
        self.assertIn("Upload cancelled by the host\n", err)

    def test_handle_settings_reach_the_upload(self):
        for flags, message in [(["--stall-timeout", "1"], "No data moved for 1 seconds; request"),
                               (["--use-proxy"], "Invalid proxy URL 'ftp://nowhere'\n")]:
            with self.subTest(flags=flags):
                tool = self.start(*flags)
                out, err = tool.communicate()
                self.assertEqual(tool.returncode, STATUS[40], err)
                self.assertIsNone(re.search(r"(?m)^(.+\n)\1", out), out)  # a line per change
                self.assertIn(message, err)


if __name__ == "__main__":
    TOOL, SHARE_ROOT = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
