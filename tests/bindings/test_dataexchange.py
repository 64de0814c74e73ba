"""The Python binding: test_dataexchange.py LIBRARY SHARE_ROOT SITE_SCRIPT [unittest arguments]"""
import importlib.metadata
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import dataexchange as dx


# A program that logs to its standard output and uploads the folder it is given, keeping the
# packed copy for the library's unload when asked to.
LOGGING_HOST = """import logging, sys, dataexchange as dx
logging.basicConfig(stream=sys.stdout, level=logging.DEBUG, format="%(levelname)s %(message)s")
handle = dx.Handle(remove_package=sys.argv[2] == "remove")
handle["Device type"], handle["Data type"], handle["Location"] = 0, 5, 1
try:
    handle.upload(sys.argv[1])
except dx.DataExchangeError:
    pass  # no share for these data: the lines are what counts
"""


class BindingTest(unittest.TestCase):
    def test_installed_version_is_the_librarys(self):
        environment = dict(os.environ, LD_LIBRARY_PATH=os.path.dirname(  # found by the system
            os.environ[dx.ENVIRONMENT_VARIABLE]))                       # loader, as installed
        del environment[dx.ENVIRONMENT_VARIABLE]
        shown = subprocess.run([sys.executable, "-m", "dataexchange", "--version"], check=True,
                               capture_output=True, encoding="utf-8", env=environment).stdout
        self.assertRegex(shown, r"^dataExchange v%s .+\nrevision [0-9a-f]{40}\n$" % re.escape(
            importlib.metadata.version("dataexchange")))  # found only where the wheel installed it

    def test_log_lines_go_to_logging_and_none_to_stderr(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        shutil.copy(__file__, folder)
        for package, stderr in [("remove", "^$"),  # and the library's unload has nothing to do
                                ("keep", "^---Recursive: .+\n(---File Found: .+\n)*$")]:
            host = subprocess.run([sys.executable, "-c", LOGGING_HOST, folder, package],
                                  capture_output=True, encoding="utf-8")
            self.assertEqual(host.returncode, 0)  # the library unloads after the interpreter
            self.assertRegex(host.stderr, stderr)
            self.assertRegex(host.stdout, "^DEBUG Adding file test_dataexchange.py\n" + (
                "(.+\n)*DEBUG ---Recursive: " if package == "remove" else ""))

    def test_options_cross_with_their_c_types(self):
        handle = dx.Handle()  # loaded through the environment variable, set below
        user = "Zoë Ångström " * 400  # far beyond the getter's first buffer
        handle["Serial number"], handle["User"] = 2**64 - 1, user
        self.assertEqual([handle[name] for name in ("Serial number", "User", "Device type")],
                         [2**64 - 1, user, -1])  # an unset device type reads -1
        for name, value, error, message in [  # warnings are raised: see unittest.main below
                ("Device type", 9, dx.ValueCroppedWarning, "^Option 'Device type' was cropped$"),
                ("User", 5, TypeError, ""), ("Location", -1, OverflowError, ""),
                ("Email address", "@", dx.DataExchangeError, r"WriteFailed .*\n  Invalid email")]:
            self.assertRaisesRegex(error, message, handle.set, name, value)
        for setter, value, message in [(handle.set_packing_threads, 40, "Packing threads are at"
                                        " most 32; 40 was"),
                                       (handle.set_retries, 25, "Retries are at most 20; 25 was"),
                                       (handle.set_compression, 12, "Compression level is at "
                                        "most 9; 12 was")]:
            self.assertRaisesRegex(dx.ValueCroppedWarning, "^" + message, setter, value)

    @unittest.skipUnless(os.name == "posix", "names that are not UTF-8 exist on POSIX only")
    def test_paths_go_as_utf8_unless_unicode_paths_are_off(self):
        latin1 = b"Kalibrierung_\xd8"  # "Ø" in code page 1252, not UTF-8
        for switch, path, message in [  # the library names what it refuses
                ({}, latin1, "not valid UTF-8"), ({}, os.fsdecode(latin1), "not valid UTF-8"),
                ({"unicode_paths": False}, latin1, "Kalibrierung_.* does not exist")]:
            with self.subTest(switch=switch, path=path):
                handle = dx.Handle(**switch)
                handle["Device type"], handle["Data type"] = 0, 0
                self.assertRaisesRegex(dx.DataExchangeError, message, handle.upload, path)

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_upload_and_its_progress_function(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "cvX", "precalibration")
        if not os.path.exists(os.path.join(SHARE_ROOT, "measurement")):  # only what it made
            self.addCleanup(shutil.rmtree, os.path.join(SHARE_ROOT, "measurement"))
        os.makedirs(share, exist_ok=True)
        handle = dx.Handle()  # closed when the test returns
        handle["Device type"], handle["Data type"], handle["Location"] = 0, 0, 1
        folder = os.path.join(tempfile.mkdtemp(), "Kalibrierung_Ø5_łódź")
        self.addCleanup(shutil.rmtree, os.path.dirname(folder))
        os.mkdir(folder)
        shutil.copy(__file__, folder)
        for path, packed in [(__file__, "precalibration_test_dataexchange.py"),
                             (folder, "precalibration_Kalibrierung_Ø5_łódź.zip")]:
            name, destination = handle.upload(path)  # after a time stamp and "_"
            self.assertEqual((destination, name in os.listdir(share), name[20:],
                              handle.stored_name()), (dx.Location.SharedFolder, True, packed, ""))
        empty = tempfile.mkdtemp()  # verified delivery, the default, refuses it
        self.addCleanup(os.rmdir, empty)
        self.assertRaisesRegex(dx.DataExchangeError, "holds no files", handle.upload, empty)
        for function, error in [(lambda stage, *_: stage is dx.Stage.Packing,  # cancels
                                 dx.DataExchangeError), (lambda *_: 1 / 0, ZeroDivisionError)]:
            handle.set_progress(function)
            self.assertRaises(error, handle.upload, dx.__file__)  # not the name delivered

    @unittest.skipUnless(os.name == "posix", "the share root is a local folder on Linux only")
    def test_spool_keeps_lists_and_sends_what_failed(self):
        share = os.path.join(SHARE_ROOT, "measurement", "processing", "cvX", "cmm")
        if not os.path.exists(os.path.join(SHARE_ROOT, "measurement")):  # only what it made
            self.addCleanup(shutil.rmtree, os.path.join(SHARE_ROOT, "measurement"))
        spool = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, spool)
        handle = dx.Handle(spool=os.path.join(spool, "Spool_ä"))  # made when first needed
        handle["Device type"], handle["Data type"], handle["Location"] = 0, 1, 1
        with self.assertRaises(dx.DataExchangeError) as failed:  # the share is not there yet
            handle.upload(__file__)
        (item,) = os.listdir(os.path.join(spool, "Spool_ä"))
        self.assertEqual(failed.exception.errors[-1], "The packed item is kept in the spool as "
                         "'%s'" % os.path.join(spool, "Spool_ä", item))
        cause = "Shared folder '%s' does not seem to exist, please check it is correctly " \
                "mounted" % share
        self.assertEqual(handle.list_spooled(), [dx.Spooled(
            item, "cmm_test_dataexchange.py", (dx.Location.SharedFolder,), 1, cause)])
        with self.assertRaises(dx.DataExchangeError) as remains:
            handle.send_spooled()
        self.assertEqual((remains.exception.result, remains.exception.delivered,
                          remains.exception.remaining, remains.exception.errors),
                         (dx.Result.DataHandlingFailed, 0, 1,
                          ["Spooled item '%s': %s" % (item, cause)]))
        os.makedirs(share)
        self.addCleanup(shutil.rmtree, share)
        self.assertEqual((handle.send_spooled(), handle.list_spooled()), ((1, 0), []))
        self.assertRegex(" ".join(os.listdir(share)), r"^\S+_cmm_test_dataexchange\.py")
        handle.set_spool_folder(None)
        self.assertRaisesRegex(dx.DataExchangeError, "InvalidArgument .*\n  No spool folder set$",
                               handle.send_spooled)


if __name__ == "__main__":
    os.environ[dx.ENVIRONMENT_VARIABLE], SHARE_ROOT = sys.argv[1:3]  # SITE_SCRIPT is not used
    unittest.main(argv=[sys.argv[0]] + sys.argv[4:], warnings="error")
