#!/usr/bin/env python3
"""Runs dataexchange-upload as a user does and checks what it prints and how it exits.

Usage: test_dataexchange_upload.py TOOL SHARE_ROOT [unittest arguments]
SHARE_ROOT is the shared-folder root the library was built with (a local folder on Linux).
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

TOOL = ""
SHARE_ROOT = ""
SITE = os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, os.pardir, "tools",
                    "processing-site", "processing_site.py")

# Exit status per result code, as documented; scripts rely on these numbers.
STATUS = {0: 0, 1: 3, 10: 4, 11: 5, 20: 6, 21: 7, 30: 8, 40: 9, -21: 10}
USAGE = 2
CANCELLED = 130
FLAGS = ["--device-type", "--data-type", "--serial", "--location", "--email", "--report",
         "--user", "--stall-timeout", "--remove-package", "--use-proxy", "--no-progress",
         "--list-options", "--version", "--help"]

# The listing of a fresh handle: name, type, summary, current, min, max, default.
DEFAULT_LISTING = [
    ("Data type", "Int32", "Type of data", "-1", "0", "6", "none"),
    ("Device type", "Int32", "Type of the device", "-1", "0", "4", "none"),
    ("Email address", "String", "Email address", '""', "none", "none", "none"),
    ("Location", "Uint32", "Location where data will be uploaded to", "3", "1", "3", "3"),
    ("Report", "Uint32", "Enable reporting", "1", "none", "1", "1"),
    ("Serial number", "Uint64", "Serial number of the device", "0", "none", "none", "none"),
    ("User", "String", "User name", '""', "none", "none", "none"),
]
LISTING_ROW = re.compile(r"^(\S[^(\n]*) \((\w+)\): (.*)\n"
                         r"    current (.*), min (.*), max (.*), default (.*)$", re.M)
DELIVERED = re.compile(r"^Delivered as: (\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d_(.*))\n"
                       r"Destination: (.*)\n$")
PROGRESS = re.compile(r"^Progress: (packing|shared folder|upload|job request) (\d+)/(\d+)$")


def run(*args):
    done = subprocess.run([TOOL, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return done.returncode, done.stdout.decode("utf-8"), done.stderr.decode("utf-8")


def make_folders(path):
    """Creates path; returns the folders that had to be made, deepest first."""
    made = []
    while not os.path.isdir(path):
        made.append(path)
        path = os.path.dirname(path)
    if made:
        os.makedirs(made[0])
    return made


def listing(*flags):
    status, out, err = run(*flags, "--list-options")
    return status, LISTING_ROW.findall(out), err


class UsageTest(unittest.TestCase):
    def test_help_documents_every_flag_and_exit_status(self):
        status, out, _ = run("--help")
        self.assertEqual(status, 0)
        for flag in FLAGS:
            self.assertRegex(out, r"(?m)^  " + re.escape(flag) + r" ")
        documented = {int(result): int(code)
                      for code, result in re.findall(r"(?m)^ +(\d+)  result +(-?\d+):", out)}
        self.assertEqual(documented, {r: s for r, s in STATUS.items() if r != 0})
        self.assertRegex(out, r"(?m)^ +0  success$")
        self.assertRegex(out, r"(?m)^ +2  usage error")
        self.assertRegex(out, r"(?m)^ +%d  cancelled" % CANCELLED)

    def test_usage_errors_exit_before_anything_is_done(self):
        cases = [
            (["--bogus", "x"], "unknown flag '--bogus'"),
            (["x", "--serial"], "--serial needs a value"),
            (["--serial", "12ab", "x"], "'12ab' is not a number"),
            (["--report=", "x"], "'' is not a number"),
            (["--serial", "-1", "x"], "'-1' is not a number"),
            (["--stall-timeout", "-1", "x"], "'-1' is not a number"),
            (["--serial", "18446744073709551616", "x"], "is not a number"),
            (["--location", "4294967296", "x"], "is not a number"),
            (["--location", " 2", "x"], "is not a number"),
            (["--device-type", "2147483648", "x"], "is not a number"),
            (["a", "b"], "more than one path given: 'b'"),
            ([], "no file or folder to upload given"),
            (["--list-options", "x"], "--list-options does not upload"),
        ]
        for args, message in cases:
            with self.subTest(args=args):
                status, out, err = run(*args)
                self.assertEqual(status, USAGE)
                self.assertEqual(out, "")
                self.assertIn(message, err)
                self.assertIn("--help", err)


class OptionsTest(unittest.TestCase):
    def test_listing_of_a_fresh_handle(self):
        status, rows, err = listing()
        self.assertEqual(status, 0, err)
        self.assertEqual(rows, DEFAULT_LISTING)

    def test_listing_shows_the_values_set_by_flags(self):
        status, rows, err = listing(
            "--device-type", "4", "--data-type=0", "--serial", "18446744073709551615",
            "--location", "2", "--email", "a.b-c@x-y.example.org", "--report", "0",
            "--user", "Zoë", "--user", "Zoë Ång")
        self.assertEqual(status, 0, err)
        self.assertEqual([(row[0], row[3]) for row in rows], [
            ("Data type", "0"), ("Device type", "4"),
            ("Email address", '"a.b-c@x-y.example.org"'), ("Location", "2"), ("Report", "0"),
            ("Serial number", "18446744073709551615"), ("User", '"Zoë Ång"')])

    def test_clipped_values_warn_and_continue(self):
        cases = [
            ("--location", "7", "Location", "3"),
            ("--location", "0", "Location", "1"),
            ("--device-type", "-5", "Device type", "0"),
            ("--data-type", "99", "Data type", "6"),
            ("--report", "2", "Report", "1"),
        ]
        for flag, value, option, stored in cases:
            with self.subTest(flag=flag, value=value):
                status, rows, err = listing(flag, value)
                self.assertEqual(status, 0, err)
                self.assertIn("Option '%s' was cropped\n" % option, err)
                self.assertIn("%s stored as %s\n" % (flag, stored), err)
                self.assertEqual(dict((row[0], row[3]) for row in rows)[option], stored)

    def test_refused_email_stops_before_the_upload(self):
        for address in ["bad mail", "", "a@b.c1", "@x.de"]:
            with self.subTest(address=address):
                status, out, err = run("--email", address, "--user", "u", "no-such-path")
                self.assertEqual(status, STATUS[11])
                self.assertEqual(out, "")
                self.assertEqual(err, "Invalid email address: %s\n"
                                      "Option 'Email address' cannot be written\n" % address)


# Needs the real upload export; everything above works with the option exports alone.
class UploadTest(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.TemporaryDirectory(prefix="dxUploadTool")
        self.token = os.path.basename(self.work.name)
        self.addCleanup(self.work.cleanup)

    def test_failures_print_the_error_list_and_exit_with_their_status(self):
        existing = os.path.join(self.work.name, "data.txt")
        with open(existing, "w") as file:
            file.write("1 2 3\n")
        missing = os.path.join(self.work.name, "fehlt ü")
        cases = [
            ([missing], 10, "File or folder %s does not exist" % missing),
            ([""], 1, "Empty file or folder name provided"),
            (["--data-type", "6", existing], 30, "Unhandled value for 'Device type'"),
            (["--device-type", "4", existing], 30, "Unhandled value for 'Data type'"),
        ]
        for args, result, line in cases:
            with self.subTest(args=args):
                status, out, err = run(*args)
                self.assertEqual(status, STATUS[result])
                self.assertEqual(out, "")
                self.assertIn(line, err.splitlines())

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_delivery_to_the_shared_folder(self):
        # "brd" devices with "logFile" data: the folder the library chooses for these options.
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "brd", "logFile")
        for made in reversed(make_folders(share)):
            self.addCleanup(os.rmdir, made)
        folder = os.path.join(self.work.name, "Messung ü " + self.token)
        os.mkdir(folder)
        for name in ["a.txt", "b ü.csv"]:
            with open(os.path.join(folder, name), "w") as file:
                file.write(name)
        single, quiet = [os.path.join(self.work.name, "log%s ü %s.txt" % (n, self.token))
                         for n in ("", "2")]
        for name in (single, quiet):
            with open(name, "w") as file:
                file.write("log\n")
        # Bytes to pack: the files' sizes, as a script would compute them.
        cases = [
            ([], single, "logFile_log ü %s.txt" % self.token, 4),
            ([], folder + os.sep, "logFile_Messung ü %s.zip" % self.token, 5 + 8),
            (["--no-progress"], quiet, "logFile_log2 ü %s.txt" % self.token, None),
        ]
        for flags, path, packed, packing in cases:
            with self.subTest(path=path):
                status, out, err = run("--device-type", "4", "--data-type", "6",
                                       "--location", "1", *flags, path)
                self.assertEqual(status, 0, err)
                lines = out.splitlines(keepends=True)
                progress = [PROGRESS.match(line.rstrip("\n")) for line in lines[:-2]]
                self.assertNotIn(None, progress, out)
                self.assertEqual(self.stages(progress),
                                 [] if packing is None else
                                 [("packing", packing), ("shared folder", 1)])
                match = DELIVERED.match("".join(lines[-2:]))
                self.assertIsNotNone(match, out)
                delivered = os.path.join(share, match.group(1))
                for file in [delivered, delivered + ".info"]:
                    self.assertTrue(os.path.isfile(file), file)
                    self.addCleanup(os.remove, file)
                self.assertEqual(match.group(2), packed)
                self.assertEqual(match.group(3), "shared folder")

    def stages(self, progress):
        """Checks each stage's counts rise from 0 to its total; returns (stage, total) in order."""
        stages = []
        for match in progress:
            stage, done, total = match.group(1), int(match.group(2)), int(match.group(3))
            if not stages or stages[-1][0] != stage:
                self.assertEqual(done, 0, match.group(0))
                stages.append((stage, total, [done]))
            else:
                self.assertEqual(total, stages[-1][1], match.group(0))
                self.assertGreater(done, stages[-1][2][-1], match.group(0))
                stages[-1][2].append(done)
        for stage, total, counts in stages:
            self.assertEqual(counts[-1], total, stage)
        return [(stage, total) for stage, total, _ in stages]


# A site that takes 20 s to answer an upload: long enough to interrupt the tool while it waits.
@unittest.skipUnless(os.name == "posix", "sends SIGINT")
class SlowServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.TemporaryDirectory(prefix="dxUploadToolSite")
        cls.addClassCleanup(cls.work.cleanup)
        # The library reads config.xml beside the program, so the tool runs from a copy.
        host = os.path.join(cls.work.name, "host")
        os.mkdir(host)
        cls.tool = shutil.copy2(TOOL, host)
        cls.site = subprocess.Popen(
            [sys.executable, SITE, "--root", cls.work.name, "--write-config", host, "--quiet",
             "--watch-stdin", "--delay", "upload=20"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        cls.addClassCleanup(cls.site.wait)
        cls.addClassCleanup(cls.site.kill)
        cls.port = int(cls.site.stdout.readline())
        # Ignored unless --use-proxy asks for it.
        config = os.path.join(host, "config.xml")
        with open(config) as file:
            text = file.read()
        with open(config, "w") as file:
            file.write(text.replace("</Configuration>",
                                    "<Proxy><Url>ftp://nowhere</Url></Proxy></Configuration>"))
        cls.data = os.path.join(cls.work.name, "cal.txt")
        with open(cls.data, "w") as file:
            file.write("1 2 3\n")

    def start(self, *flags):
        return subprocess.Popen(
            [self.tool, "--device-type", "0", "--data-type", "0", "--serial", "7",
             "--location", "2", *flags, self.data],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)

    def test_ctrl_c_while_the_server_is_waited_for_cancels(self):
        tool = self.start()
        # Bounded: the tool ends at the latest when the site answers.
        for line in tool.stdout:
            if line.startswith("Progress: upload "):
                break
        tool.send_signal(signal.SIGINT)
        out, err = tool.communicate()
        self.assertEqual(tool.returncode, CANCELLED, err)
        self.assertNotIn("Delivered as:", out)
        self.assertIn("Upload cancelled by the host", err.splitlines())

    def test_handle_settings_reach_the_upload(self):
        cases = [
            (["--stall-timeout", "1"], "No data moved for 1 seconds; request to "
                                       "'http://127.0.0.1:%d/uploadFile.php' aborted" % self.port),
            (["--use-proxy"], "Invalid proxy URL 'ftp://nowhere'"),
        ]
        for flags, message in cases:
            with self.subTest(flags=flags):
                tool = self.start("--no-progress", *flags)
                out, err = tool.communicate()
                self.assertEqual(tool.returncode, STATUS[40], err)
                self.assertEqual(out, "")
                self.assertIn(message, err.splitlines())


if __name__ == "__main__":
    TOOL, SHARE_ROOT = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
