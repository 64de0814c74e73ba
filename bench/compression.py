#!/usr/bin/env python3
"""The library's compression choices (dataExchangeSetCompression) on the bench's own data, side by
side in one run on 2 threads: level 1 against 7-Zip's fastest zip, storing what does not shrink
against level 6, an incompressible folder against cp, peak RSS per level and thread count, every
archive checked with unzip -t and Python's zipfile. Prints one line per figure, ratio first.

    bench/run.sh --compression [--mixed-mb 142] [--random-mb 1024] [--reps 3] [--big-4g]

--big-4g adds the once-off case: a folder with a non-ASCII name holding one file of 4.1 GiB,
stored at level 0 and deflated at level 1, each archive tested with unzip -t (Info-ZIP 6.0)."""
import argparse
import pathlib
import shutil
import statistics
import subprocess
import sys
import zipfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import bench  # noqa: E402  (the bench's runner, data generator and tools)

MIB = bench.MIB


def check(archive):
    """unzip -t and Python's zipfile CRC check; the entries stored (method 0) and all."""
    unzip = subprocess.run(["unzip", "-tqq", str(archive)], capture_output=True, text=True,
                           errors="replace")
    with zipfile.ZipFile(archive) as z:
        bad = z.testzip()
        stored = sum(i.compress_type == 0 for i in z.infolist())
        count = len(z.infolist())
    if unzip.returncode != 0 or bad is not None:
        raise SystemExit(f"{archive}: unzip -t {unzip.returncode} {unzip.stdout[-300:]}, "
                         f"zipfile bad entry {bad}")
    return f"unzip -t and zipfile pass, {stored} of {count} entries stored"


class Compression:
    def __init__(self, args):
        self.args = args
        self.b = bench.Bench(bench.parse_arguments(["--build", str(args.build), "--source",
                                                    str(args.source), "--reps", str(args.reps)]))
        self.lines = []

    def library(self, folder, setting, threads=2):
        """One pack (Location 1) at setting ("6", "1", "6+store"; None: never called)."""
        env = dict(self.b.env)
        env.pop("BENCH_COMPRESSION", None)
        if setting is not None:
            env["BENCH_COMPRESSION"] = setting
        saved, self.b.env = self.b.env, env
        try:
            self.b.clean_outputs()
            r = self.b.library(1, folder, threads)
        finally:
            self.b.env = saved
        archive = self.b.packed()
        r.size = archive.stat().st_size
        r.check = check(archive)
        return r

    def best(self, go):
        runs = [go() for _ in range(self.args.reps)]
        runs.sort(key=lambda r: r.wall)
        m = runs[len(runs) // 2]
        m.wall = statistics.median(r.wall for r in runs)
        m.rss = max(r.rss for r in runs)
        return m

    def say(self, what, figure, target, met, detail):
        line = f"{what}: {figure} (target {target}: {'met' if met else 'MISSED'}); {detail}"
        self.lines.append(line)
        print(line, flush=True)

    def mixed(self):
        total = self.args.mixed_mb * MIB
        random_bytes = int(total * bench.MIXED_RANDOM_SHARE)
        folder = self.b.generated(f"mixed_{self.args.mixed_mb}M",
                                  [(total - random_bytes, bench.MIXED_FILES, "csv"),
                                   (random_bytes, bench.MIXED_FILES, "random")])
        self.b.warm(folder)
        return folder

    def seven(self, folder):
        self.b.clean_outputs()  # 7zz adds to an archive that exists
        r = self.b.seven_zip(folder, 1)
        r.check = check(self.b.out / f"7zz_mx1_{folder.name}.zip")
        return r

    def level_one(self, folder):
        m = {k: self.best(lambda k=k: self.library(folder, k)) for k in ("1", "1+store", "4+store")}
        seven = self.best(lambda: self.seven(folder))
        for k, r in m.items():
            self.say(f"level {k} on 2 threads vs 7zz -tzip -mx=1 -mmt=2, mixed folder",
                     f"time {r.wall / seven.wall:.2f}, archive {r.size / seven.size:.3f}",
                     "<= 0.8 time, <= 1.03 archive",
                     r.wall <= 0.8 * seven.wall and r.size <= 1.03 * seven.size,
                     f"ours {r.wall:.2f} s {r.size / MIB:.1f} MiB, 7zz {seven.wall:.2f} s "
                     f"{seven.size / MIB:.1f} MiB; {r.check}")

    def store_mode(self, folder):
        six = self.best(lambda: self.library(folder, "6"))
        default = self.library(folder, None)
        for k in ("6+store", "4+store"):
            r = self.best(lambda k=k: self.library(folder, k))
            self.say(f"level {k} vs level 6 on 2 threads, mixed folder",
                     f"time {r.wall / six.wall:.2f}, archive {r.size / six.size:.3f}",
                     "<= 0.5 time, <= 1.02 archive",
                     r.wall <= 0.5 * six.wall and r.size <= 1.02 * six.size,
                     f"level 6 {six.wall:.2f} s {six.size / MIB:.1f} MiB (default "
                     f"{default.size / MIB:.1f} MiB), {k} {r.wall:.2f} s {r.size / MIB:.1f} MiB;"
                     f" {r.check}")

    def incompressible(self):
        folder = self.b.generated(f"random_{self.args.random_mb}M",
                                  [(self.args.random_mb * MIB, 16, "random")])
        self.b.warm(folder)
        copy = self.b.out / "cp_copy"

        def cp():
            shutil.rmtree(copy, ignore_errors=True)
            return self.b.run(["cp", "-r", folder, copy])
        c = self.best(cp)
        shutil.rmtree(copy, ignore_errors=True)
        r = self.best(lambda: self.library(folder, "6+store"))
        self.say(f"store mode vs cp, {self.args.random_mb} MiB of random recordings (16 files)",
                 f"rate {c.wall / r.wall:.2f} of cp's", ">= 0.7", c.wall / r.wall >= 0.7,
                 f"ours {r.wall:.2f} s ({self.args.random_mb / r.wall:.0f} MiB/s), cp "
                 f"{c.wall:.2f} s ({self.args.random_mb / c.wall:.0f} MiB/s); {r.check}")

    def memory(self, folder):
        peaks = {}
        for setting in ("0", "1", "6", "9", "6+store"):
            for threads in (1, 2, 32):
                peaks[f"{setting}@{threads}"] = self.library(folder, setting, threads).rss
        top = max(peaks, key=peaks.get)
        self.say("peak RSS per level and thread count, mixed folder",
                 f"at most {peaks[top]:.1f} MiB ({top})", "< 64 MiB", peaks[top] < 64,
                 ", ".join(f"{k} {v:.0f}" for k, v in peaks.items()))

    def big(self):
        folder = self.b.data / "Aufnahme_\u00e4_4g"
        folder.mkdir(parents=True, exist_ok=True)
        target = folder / "Messung_\u00f6.bin"
        if not target.exists() or target.stat().st_size != 4400 * MIB:
            subprocess.run([str(self.b.gendata), str(self.b.data / "big4g.tmp"), str(4400 * MIB),
                            "1", "random"], check=True)
            only = next((self.b.data / "big4g.tmp").iterdir())
            only.rename(target)
            shutil.rmtree(self.b.data / "big4g.tmp")
        for setting in ("0", "1"):
            r = self.library(folder, setting)
            self.say(f"once-off: 4400 MiB entry with a non-ASCII name, level {setting}",
                     "pass", "unzip -t of Info-ZIP 6.0 passes", True,
                     f"{r.wall:.1f} s, archive {r.size / MIB:.0f} MiB; {r.check}")
            self.b.clean_outputs()
        if not self.args.keep_data:
            shutil.rmtree(folder)

    def run(self):
        self.b.start_site()
        try:
            folder = self.mixed()
            self.level_one(folder)
            self.store_mode(folder)
            self.memory(folder)
            if self.args.random_mb:
                self.incompressible()
            if self.args.big_4g:
                self.big()
        finally:
            self.b.stop_site()
            self.b.clean_outputs()


def main(argv):
    root = pathlib.Path(__file__).resolve().parent.parent
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--build", type=pathlib.Path, default=root / "build-bench")
    p.add_argument("--source", type=pathlib.Path, default=root)
    p.add_argument("--mixed-mb", type=int, default=142)
    p.add_argument("--random-mb", type=int, default=1024)
    p.add_argument("--reps", type=int, default=3)
    p.add_argument("--big-4g", action="store_true")
    p.add_argument("--keep-data", action="store_true")
    Compression(p.parse_args(argv)).run()


if __name__ == "__main__":
    main(sys.argv[1:])
