"""Runs the .NET binding's NUnit suite against the built library and a local processing site:

    run_nunit.py TESTS_DLL LIBRARY SHARE_ROOT SITE_SCRIPT NUNIT_CONSOLE_EXE

The library reads config.xml beside the host's executable, so the suite runs under a copy of the
mono binary in a folder of its own, beside the site's config.xml. Passes only when NUnit's closing
summary says every test ran and none failed.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

SUMMARY = re.compile(r"^Tests run: (\d+), Errors: (\d+), Failures: (\d+), Inconclusive: (\d+)")
NOT_RUN = re.compile(r"^\s*Not run: (\d+), Invalid: (\d+), Ignored: (\d+), Skipped: (\d+)")


def main(tests, library, share_root, site_script, console):
    with tempfile.TemporaryDirectory(prefix="dotnetBinding-") as work:
        host = os.path.join(work, "host")
        os.mkdir(host)
        mono = os.path.join(host, "mono")
        shutil.copy(os.path.realpath(shutil.which("mono")), mono)
        site = subprocess.Popen([sys.executable, site_script, "--root", os.path.join(work, "site"),
                                 "--write-config", host, "--quiet", "--watch-stdin"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            if not site.stdout.readline().strip():
                print("the processing site did not start")
                return 1
            # TMPDIR: the suite's folders and the library's packed items go where the run cleans
            # up, even after a crash.
            environment = dict(os.environ, LD_LIBRARY_PATH=os.path.dirname(library), TMPDIR=work,
                               DATAEXCHANGE_TEST_SHARE_ROOT=share_root,
                               DATAEXCHANGE_TEST_SITE_ROOT=os.path.join(work, "site"))
            run = subprocess.run([mono, "--debug", console, tests, "-nologo", "-noshadow",
                                  "-noresult", "-labels"], env=environment, cwd=work,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True)
        finally:
            site.stdin.close()
            site.wait()
    print(run.stdout)
    lines = run.stdout.splitlines()
    for index, line in enumerate(lines):
        summary = SUMMARY.match(line)
        not_run = NOT_RUN.match(lines[index + 1]) if summary and index + 1 < len(lines) else None
        if summary and not_run:
            print("closing line:", line.strip(), "|", not_run.group(0).strip())
            counts = [int(n) for n in summary.groups()[1:] + not_run.groups()]
            if run.returncode == 0 and int(summary.group(1)) > 0 and not any(counts):
                return 0
            break
    else:
        print("no NUnit summary found")
    print("nunit-console exit code", run.returncode)
    return 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:6]))
