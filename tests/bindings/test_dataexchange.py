#!/usr/bin/env python3
"""The Python binding against the built library and the local processing site.

Usage: test_dataexchange.py LIBRARY SHARE_ROOT SITE_SCRIPT [unittest arguments]
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import dataexchange as dx

LIBRARY = SHARE_ROOT = SITE = ""


class OptionsTest(unittest.TestCase):
    def setUp(self):
        self.handle = dx.Handle(LIBRARY)
        self.addCleanup(self.handle.close)

    def test_values_go_through_the_type_of_the_option(self):
        listing = {option.name: option[3:] for option in self.handle.options()}
        self.assertEqual(len(listing), 7)
        self.assertEqual(listing["Location"], (dx.OptionType.Uint32, 3, 3, 1, 3, 3))
        self.assertEqual(listing["Report"], (dx.OptionType.Uint32, 3, 1, None, 1, 1))
        self.handle["Serial number"] = 2**64 - 1
        long_name = "Zoë Ångström " * 400  # far beyond the getter's first buffers
        self.handle["User"] = long_name
        self.assertEqual(self.handle["Serial number"], 2**64 - 1)
        self.assertEqual(self.handle["User"], long_name)
        with self.assertWarnsRegex(dx.ValueCroppedWarning, "Option 'Device type' was cropped"):
            self.handle["Device type"] = 9
        self.assertEqual(self.handle["Device type"], 4)

    def test_failures_raise_with_code_and_error_lines(self):
        cases = [
            (lambda: self.handle["Colour"], dx.Result.InvalidOption,
             ["Option 'Colour' does not exist"]),
            (lambda: self.handle.set("User", 5, dx.OptionType.Uint32), dx.Result.InvalidOption,
             ["Invalid option type Uint32 for option 'User'"]),
            (lambda: self.handle.set("Email address", "bad mail"), dx.Result.WriteFailed,
             ["Invalid email address: bad mail", "Option 'Email address' cannot be written"]),
        ]
        for call, result, errors in cases:
            with self.subTest(errors=errors), self.assertRaises(dx.DataExchangeError) as caught:
                call()
            self.assertEqual((caught.exception.result, caught.exception.errors), (result, errors))
        self.assertRaises(TypeError, self.handle.set, "User", 5)
        self.assertRaises(OverflowError, self.handle.set, "Location", -1)


class UploadTest(unittest.TestCase):
    def setUp(self):
        work = tempfile.TemporaryDirectory(prefix="dxBinding")
        self.addCleanup(work.cleanup)
        self.work, self.data = work.name, os.path.join(work.name, "cal7")
        os.mkdir(self.data)
        with open(os.path.join(self.data, "a.csv"), "w") as file:
            file.write("1;2\n")

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_delivery_to_the_shared_folder(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "cvX", "precalibration")
        os.makedirs(share, exist_ok=True)
        self.addCleanup(shutil.rmtree, os.path.join(SHARE_ROOT, "measurement"))
        os.environ[dx.ENVIRONMENT_VARIABLE] = LIBRARY  # the route without a path
        self.addCleanup(os.environ.pop, dx.ENVIRONMENT_VARIABLE)
        with dx.Handle() as handle:
            handle["Device type"], handle["Data type"] = 0, dx.DataType.Precalibration
            handle["Location"] = dx.Location.SharedFolder
            name, destination = handle.upload(self.data)
        self.assertRegex(name, r"^\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d_precalibration_cal7\.zip$")
        self.assertEqual(destination, dx.Location.SharedFolder)
        self.assertTrue(set(os.listdir(share)) >= {name, name + ".info"})
        self.assertRaises(ValueError, handle.upload, self.data)  # closed

    def test_progress_and_cancel(self):
        with dx.Handle(LIBRARY) as handle:
            handle["Device type"], handle["Data type"], handle["Location"] = 0, 0, 1
            seen = []
            handle.set_progress(lambda stage, done, total: seen.append(stage) or True)
            handle.set_remove_package(True)
            with self.assertRaises(dx.DataExchangeError) as caught:
                handle.upload(self.data)
            self.assertEqual((caught.exception.result, caught.exception.errors, seen),
                             (dx.Result.DataHandlingFailed, ["Upload cancelled by the host"],
                              [dx.Stage.Packing]))
            handle.set_progress(lambda stage, done, total: 1 / 0)
            self.assertRaises(ZeroDivisionError, handle.upload, self.data)
            handle.set_progress(None)

    def test_delivery_to_the_server(self):
        # The library reads config.xml beside the application: here a copy of the interpreter.
        host = os.path.join(self.work, "host")
        os.mkdir(host)
        python = shutil.copy(os.path.realpath(sys.executable), host)
        site = subprocess.Popen([sys.executable, SITE, "--root", os.path.join(self.work, "site"),
                                 "--write-config", host, "--quiet", "--watch-stdin"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        for cleanup in [site.wait, site.stdout.close, site.stdin.close]:
            self.addCleanup(cleanup)
        self.assertTrue(site.stdout.readline().strip().isdigit())
        script = ("import dataexchange as dx\nh = dx.Handle(%r)\n"
                  "h['Device type'], h['Data type'], h['Location'] = 4, 6, 2\n"
                  "name, destination = h.upload(%r)\nprint(name, int(destination))\n"
                  % (LIBRARY, self.data))
        env = dict(os.environ, PYTHONPATH=os.path.dirname(dx.__file__))
        output = subprocess.run([python, "-c", script], env=env, stdout=subprocess.PIPE,
                                check=True).stdout.decode()
        self.assertEqual(output, "logFile_cal7.zip 2\n")
        self.assertTrue(os.path.isfile(os.path.join(self.work, "site", "storage", output[:-3])))


if __name__ == "__main__":
    LIBRARY, SHARE_ROOT, SITE = sys.argv[1:4]
    unittest.main(argv=[sys.argv[0]] + sys.argv[4:])
