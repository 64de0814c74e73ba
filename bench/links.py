"""The upload stage on shaped links: bench.py's section "links".

Two network namespaces of this run's own, joined by a veth pair; the client's end is shaped with
tbf (rate, burst, latency), the server's namespace runs the PHP site (tools/processing-site/php,
Apache + mod_php). One file is sent there by curl -F, by the library through Qt and by the
library streamed through libcurl, alternating, at each rate. The library's figure is its upload
stage alone (the progress callback's times, see benchHost.c): its copy into the temporary
folder and the job request are not part of the transfer. curl's is its own time_total, which
leaves out its process start just as the stage does.

Needs root (ip netns, tc); without it the section says so and is skipped.
"""

import os
import re
import shutil
import statistics
import subprocess
import sys
import time

MIB = 1 << 20
LINK_TARGET = 1.03  # streamed upload stage / curl's time on a shaped link, at most
CLIENT, SERVER = "192.0.2.1", "192.0.2.2"  # TEST-NET-1, only inside the two namespaces
LATENCY = "20ms"  # tbf's queue: how long a packet may wait for tokens
BURST_SECONDS = 0.002  # tbf's bucket holds 2 ms at the rate: several 64 KiB sends at 1 Gbit
# tbf counts whole frames: of a 1514-byte frame (MTU 1500 and Ethernet's header) TCP with
# timestamps carries 1448 bytes of the request, the most any sender gets of the rate.
PAYLOAD_SHARE = 1448 / 1514


def log(text):
    print(text, file=sys.stderr, flush=True)


def bits_per_second(rate):
    """tc's rate words as this section uses them: 1gbit, 2500mbit, 100mbit, 800kbit."""
    m = re.fullmatch(r"([0-9.]+)(gbit|mbit|kbit|bit)", rate)
    if not m:
        raise SystemExit(f"link rate '{rate}': a number with gbit, mbit or kbit (tc's words)")
    return float(m.group(1)) * {"gbit": 1e9, "mbit": 1e6, "kbit": 1e3, "bit": 1}[m.group(2)]


def missing():
    """Why the section cannot run here, or None."""
    if os.geteuid() != 0:
        return "shaping a link needs root (ip netns, tc); run bench/run.sh as root"
    for tool in ("ip", "tc", "/usr/sbin/apache2"):
        if shutil.which(tool) is None:
            return f"{tool} is not installed (scripts/deps.sh installs what the PHP site needs)"
    if not os.path.exists("/usr/lib/apache2/modules/libphp8.2.so"):
        return "mod_php (libapache2-mod-php) is not installed"
    return None


class Links:
    def __init__(self, bench):
        self.b = bench
        self.args = bench.args
        self.work = bench.work / "links"
        self.site_root = self.work / "site"
        self.host = self.work / "host" / "benchHost"
        # Named after this process, so that two runs on one machine never meet.
        self.client = f"dxbench-c{os.getpid()}"
        self.server = f"dxbench-s{os.getpid()}"
        self.made = []
        self.site = None
        self.url = None
        self.runs = {}

    # ---------------------------------------------------------------- the link and the site

    def ip(self, *words):
        done = subprocess.run(["ip"] + list(words), stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise SystemExit(f"ip {' '.join(words)}: {done.stdout.strip()}")

    def make_link(self):
        for name in (self.client, self.server):
            self.ip("netns", "add", name)
            self.made.append(name)
        # Made inside the namespaces: the pair's names never show in the machine's own.
        self.ip("link", "add", "dxc", "netns", self.client, "type", "veth", "peer", "name", "dxs",
                "netns", self.server)
        for name, dev, address in ((self.client, "dxc", CLIENT), (self.server, "dxs", SERVER)):
            self.ip("-n", name, "addr", "add", f"{address}/24", "dev", dev)
            self.ip("-n", name, "link", "set", "lo", "up")
            self.ip("-n", name, "link", "set", dev, "up")

    def shape(self, rate):
        burst = max(int(bits_per_second(rate) / 8 * BURST_SECONDS), 64 * 1024)
        done = subprocess.run(["tc", "-n", self.client, "qdisc", "replace", "dev", "dxc", "root",
                               "tbf", "rate", rate, "burst", str(burst), "latency", LATENCY],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise SystemExit(f"tc tbf {rate}: {done.stdout.strip()}")
        return burst

    def start_site(self):
        """php-site.sh in the server's namespace, listening on the server's address there."""
        php = self.args.source / "tools" / "processing-site" / "php"
        shutil.rmtree(self.site_root, ignore_errors=True)
        self.site_root.mkdir(parents=True)
        # PHP's limits above the file, Apache's body limit off (php-site.sh's default).
        limit = f"{self.args.links_mb + 64}M"
        self.site = subprocess.Popen(
            ["ip", "netns", "exec", self.server, str(php / "php-site.sh"), "--root",
             str(self.site_root), "--listen", SERVER, "--post-max-size", limit,
             "--upload-max-filesize", limit, "--watch-stdin"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        port = self.site.stdout.readline().strip()
        if not port.isdigit():
            raise SystemExit("the PHP site did not start in the server's namespace")
        self.url = f"http://{SERVER}:{port}/uploadFile.php"
        # The library reads config.xml beside its host: a copy of the host of its own.
        self.host.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(self.b.host, self.host)
        (self.host.parent / "config.xml").write_text(
            "<Configuration>\n    <Server>\n"
            f"        <Name>{SERVER}:{port}</Name>\n        <Protocol>http</Protocol>\n"
            f"        <Port>{port}</Port>\n        <Timeout>30</Timeout>\n"
            "    </Server>\n</Configuration>\n")
        log(f"  PHP site on {SERVER}:{port} in namespace {self.server}")

    def stop(self):
        if self.site is not None:
            self.site.stdin.close()
            self.site.terminate()
            try:
                self.site.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.site.kill()
            self.site = None
        for name in reversed(self.made):
            subprocess.run(["ip", "netns", "del", name], stderr=subprocess.DEVNULL)
        self.made = []

    # ---------------------------------------------------------------- the contenders

    def stored(self, size):
        storage = self.site_root / "storage"
        entries = list(storage.iterdir())
        if len(entries) != 1 or entries[0].stat().st_size != size:
            raise SystemExit(f"the PHP site stored {[(e.name, e.stat().st_size) for e in entries]}"
                             f", not one file of {size} bytes")
        entries[0].unlink()

    def contenders(self, path, size):
        inside = ["ip", "netns", "exec", self.client]

        def curl():
            r = self.b.curl(path, self.url, wrap=inside)
            self.stored(size)
            return r

        def lib(streamed):
            def go():
                r = self.b.library(2, path, streamed=streamed, env=["BENCH_STAGES=1"],
                                   host=self.host, wrap=inside)
                if r.stage is None:
                    raise SystemExit("benchHost reported no upload stage")
                self.stored(size)
                return r
            return go

        return {"curl -F": curl, "library (Qt)": lib(False), "library, streamed": lib(True)}

    # ---------------------------------------------------------------- the section

    def measure(self):
        why = missing()
        if why:
            log(f"links: skipped: {why}")
            return None
        single = self.b.folder(f"upload_{self.args.links_mb}M", self.args.links_mb, 1, "random")
        path = self.b.only_file(single)
        size = path.stat().st_size
        load_start = " ".join(f"{x:.2f}" for x in os.getloadavg())
        shutil.rmtree(self.work, ignore_errors=True)
        self.work.mkdir(parents=True)
        rows, bursts = [], {}
        # A machine without network namespaces or tbf (a container without CAP_NET_ADMIN)
        # skips the section rather than ending the whole benchmark.
        try:
            self.make_link()
            self.shape(self.args.link_rates[0])
        except SystemExit as e:
            self.stop()
            log(f"links: skipped: the shaped link could not be made: {e}")
            return None
        try:
            self.start_site()
            self.b.warm(path)
            for rate in self.args.link_rates:
                bursts[rate] = self.shape(rate)
                log(f"  link {rate}")
                runs = self.b.repeat(f"link {rate}", self.contenders(path, size))
                self.runs[rate] = runs
                rows += self.rows(rate, size, runs)
        finally:
            self.stop()
            shutil.rmtree(self.site_root, ignore_errors=True)
        load_end = " ".join(f"{x:.2f}" for x in os.getloadavg())
        return self.machine(bursts, load_start, load_end), rows

    def rows(self, rate, size, runs):
        mib = size / MIB
        ideal = size * 8 / bits_per_second(rate)
        curl = statistics.median(r.stage for r in runs["curl -F"])
        result = []
        for key, target in (("library (Qt)", None), ("library, streamed", LINK_TARGET)):
            stage = statistics.median(r.stage for r in runs[key])
            ratio = stage / curl
            # Repetition by repetition: the two ran minutes apart at most, under the same load.
            each = [r.stage / c.stage for r, c in zip(runs[key], runs["curl -F"])]
            met = None if target is None else ratio <= target
            cpu = statistics.median(r.cpu for r in runs[key])
            curl_cpu = statistics.median(r.cpu for r in runs["curl -F"])
            result.append({
                "what": f"upload stage, {mib:.0f} MiB over a shaped {rate} link to the Apache "
                        f"+ PHP site, {key}",
                "ours": f"{stage:.2f} s, {mib / stage:.0f} MiB/s; process CPU {cpu:.2f} s "
                        "(with the copy and the job request)",
                "against": f"curl -F: {curl:.2f} s, {mib / curl:.0f} MiB/s, CPU {curl_cpu:.2f} "
                           f"s; the file's bytes alone at the link's rate: {ideal:.2f} s",
                "figure": f"time ratio {ratio:.3f} (per repetition {min(each):.3f}-"
                          f"{max(each):.3f}); curl at {ideal / curl:.2f} of the link's rate "
                          f"(at most {PAYLOAD_SHARE:.2f} carries the request)",
                "target": "none (reference)" if target is None else
                          f"<= {target:.2f} of curl's time",
                "met": met,
                "why": self.why(ratio, target, stage, curl, ideal, cpu, curl_cpu),
                "runs": {},
            })
        return result

    @staticmethod
    def why(ratio, target, stage, curl, ideal, cpu, curl_cpu):
        carried = ideal / PAYLOAD_SHARE  # the least time the link allows for the request
        if target is None and ratio <= LINK_TARGET:
            return ("the default transport, for comparison: the link sets its pace too; Qt's "
                    "own cap (16 KiB pieces handed between two threads) lies above this rate")
        if target is None:
            return ("the default transport, for comparison: Qt hands the body between two "
                    "threads 16 KiB at a time, which caps its rate below this link's on these "
                    f"two shared cores (process CPU {cpu:.2f} s, copy included, against curl's "
                    f"{curl_cpu:.2f} s)")
        if ratio <= target:
            return ("both send from one thread in large writes, so the link's tokens set the "
                    f"pace: curl took {curl / carried:.3f} of the least time the link allows")
        return (f"{stage - curl:.2f} s more than curl, which took {curl / carried:.3f} of the "
                f"least time the link allows: the sending side is slower (process CPU "
                f"{cpu:.2f} s, copy included, against curl's {curl_cpu:.2f} s)")

    def machine(self, bursts, load_start, load_end):
        def first(command):
            done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  text=True)
            return (done.stdout.strip().splitlines() or ["?"])[0]

        shaping = "; ".join(f"{rate}: burst {burst} bytes" for rate, burst in bursts.items())
        return self.b.machine()[:3] + [
            f"Link: two network namespaces of their own joined by a veth pair (MTU 1500), "
            f"client {CLIENT}, server {SERVER}; the client's egress shaped with tc tbf "
            f"(latency {LATENCY}; {shaping}); the answers' direction is not shaped",
            f"Site: tools/processing-site/php/php-site.sh in the server's namespace "
            f"({first(['/usr/sbin/apache2', '-v']).split(': ')[-1]}, "
            f"{' '.join(first(['php', '-v']).split()[:2])}, mod_php, prefork); PHP parses the "
            "body into a temporary file while it arrives, then the script moves it to storage/",
            "Figures: the library's upload stage from its progress callback (first upload call "
            "to the first job-request call: connection, body and the answer), curl's "
            "time_total; both leave out the process start, the library's also its copy into "
            "the temporary folder and the job request",
            f"Load average at the start: {load_start}; at the end: {load_end} (2 cores shared "
            "with other work: the curl runs alternate with the library's, so both meet the "
            "same load)",
            f"Repetitions: {self.args.reps}, medians reported; run at "
            f"{time.strftime('%Y-%m-%d %H:%M', time.gmtime())} UTC",
        ]

    def every_run(self):
        lines = []
        for rate, runs in self.runs.items():
            for key, v in runs.items():
                lines.append(f"- {rate}, {key}: stage " +
                             ", ".join(f"{r.stage:.2f}" for r in v) + " s; process wall " +
                             ", ".join(f"{r.wall:.2f}" for r in v) + " s; CPU " +
                             ", ".join(f"{r.cpu:.2f}" for r in v) + " s; peak RSS " +
                             ", ".join(f"{r.rss:.0f}" for r in v) + " MiB")
        return lines


def measure(bench):
    """Runs the section; returns (machine lines, rows, every run's lines), or None when it
    cannot run here (said on standard error)."""
    links = Links(bench)
    result = links.measure()
    if result is None:
        return None
    machine, rows = result
    return machine, rows, links.every_run()
