#!/usr/bin/env python3
"""The Python binding: test_dataexchange.py LIBRARY SHARE_ROOT SITE_SCRIPT [unittest arguments]"""
import os
import pathlib
import shutil
import sys
import tempfile
import unittest

import dataexchange as dx

LIBRARY = SHARE_ROOT = ""


class OptionsTest(unittest.TestCase):
    def setUp(self):
        self.handle = dx.Handle(LIBRARY)
        self.addCleanup(self.handle.close)

    def test_values_go_through_the_type_of_the_option(self):
        listing = {option.name: option[3:] for option in self.handle.options()}
        self.assertEqual(listing["Location"], (dx.OptionType.Uint32, 3, 3, 1, 3, 3))
        self.assertEqual(listing["Report"], (dx.OptionType.Uint32, 3, 1, None, 1, 1))
        user = "Zoë Ångström " * 400  # far beyond the getter's first buffers
        self.handle["Serial number"], self.handle["User"] = 2**64 - 1, user
        self.assertEqual((self.handle["Serial number"], self.handle["User"]), (2**64 - 1, user))
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
        self.data = os.path.join(work.name, "cal7")
        os.mkdir(self.data)
        pathlib.Path(self.data, "a.csv").write_text("1;2\n")

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_delivery_to_the_shared_folder(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "cvX", "precalibration")
        if not os.path.exists(os.path.join(SHARE_ROOT, "measurement")):  # only what it made
            self.addCleanup(shutil.rmtree, os.path.join(SHARE_ROOT, "measurement"))
        os.makedirs(share, exist_ok=True)
        os.environ[dx.ENVIRONMENT_VARIABLE] = LIBRARY  # the route without a path
        self.addCleanup(os.environ.pop, dx.ENVIRONMENT_VARIABLE)
        self.assertIs(dx.load(), dx.load(LIBRARY))
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
            with self.assertRaises(dx.DataExchangeError) as caught:
                handle.upload(self.data)
            self.assertEqual((caught.exception.result, caught.exception.errors, seen),
                             (dx.Result.DataHandlingFailed, ["Upload cancelled by the host"],
                              [dx.Stage.Packing]))
            handle.set_progress(lambda stage, done, total: 1 / 0)
            self.assertRaises(ZeroDivisionError, handle.upload, self.data)
            handle.set_progress(None)


if __name__ == "__main__":
    LIBRARY, SHARE_ROOT = sys.argv[1:3]  # SITE_SCRIPT is not used
    unittest.main(argv=[sys.argv[0]] + sys.argv[4:])
