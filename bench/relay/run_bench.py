#!/usr/bin/env python3
"""Relayed HTTP throughput: the same requests, in the same run, three ways to
the same nginx:

  direct    the outside client talks to nginx itself
  ssh -R    through an OpenSSH reverse tunnel (sshd and ssh made for the run)
  ferrule   through ferrule-devrelay and ferrule (the device side)

  ferrule static   the same through a fully static ferrule, the shape the
                   device runs: FERRULE_STATIC with OpenSSL configured as the
                   device's (scripts/cross/sysroot.sh --host), built and
                   brought up to date in build-static/
  floor     the same through bench_relay_floor, a lean event loop that does
            the relay protocol's steps and nothing else: what any device
            side of this protocol costs at the least (1 KB runs only)

Cases: requests/s for a 1 KB page at concurrency 1 and 16 (wrk, keep-alive),
and MB/s for one 100 MB file (curl). Each measurement is repeated and the
medians are printed with the ratios, ferrule's CPU seconds per 1000 relayed
requests (utime+stime from /proc/PID/stat around each wrk run) and its ratio
to the ssh client's (the tunnel's device side, which does the same kinds of
work) and to the floor's, the device side's user and system time per
request apart, and the peak RSS (VmHWM) of both ferrule builds under the
same load, with the static one's resident memory by mapping.

Then the static ferrule again, and a second floor, run under callgrind for a
short wrk run at each concurrency: the instructions each executes (all
threads) per relayed request, a figure that a busy machine does not blur.
--profile FILE keeps the annotated top functions of the ferrule's c=1 run
(and FILE.out, callgrind's own file); --only-callgrind skips the timed runs.

Everything runs on the loopback interface of a network namespace made for the
run (see scripts/harness/netns.py), so KEY.relay.test resolves without
touching the machine's configuration. sshd runs with its own configuration,
host key, user key and authorized_keys in the run's temp directory; nothing
of the machine's ssh setup is read or changed. Needs root.

    python3 bench/relay/run_bench.py [--reps N] [--seconds S] [--static FERRULE]
                                     [--no-callgrind] [--profile FILE] [--floor FLOOR]
                                     [FERRULE DEVRELAY]

Defaults: build/app/ferrule, build-static/app/ferrule,
build/bench/bench_relay_floor and build/tools/devrelay/ferrule-devrelay,
5 repetitions of 3 s."""
import argparse
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
sys.path.insert(0, os.path.join(ROOT, "scripts"))
from harness import certs  # noqa: E402
from harness.relay_processes import DOMAIN, start_devrelay, start_ferrule, write_registration  # noqa: E402
from harness.netns import run_in_namespace  # noqa: E402
from harness.nginx import Nginx, free_port  # noqa: E402
from harness.proc_figures import cpu_seconds, cpu_split, status_field  # noqa: E402

KEY, STATIC_KEY, CALLGRIND_KEY, FLOOR_KEY, FLOOR_CALLGRIND_KEY = "dev1", "dev2", "dev3", "dev4", "dev5"
DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT = 8443, 8080, 8000
BIG_SIZE = 100 * 1024 * 1024
SSHD = shutil.which("sshd") or "/usr/sbin/sshd"


# ---- process figures

def largest_mappings(pid, count):
    """[(kB resident, name)] of the largest resident mappings, summed by name."""
    sizes, name = {}, None
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            fields = line.split()
            if re.match(r"[0-9a-f]+-[0-9a-f]+ ", line):
                # Anonymous mappings by their size tells thread stacks (8 MB) from malloc arenas (up to 64 MB).
                start, end = (int(x, 16) for x in fields[0].split("-"))
                name = fields[5] if len(fields) > 5 else "[anonymous %d kB]" % ((end - start) >> 10)
            elif fields[0] == "Rss:":
                sizes[name] = sizes.get(name, 0) + int(fields[1])
    return sorted(((kb, os.path.basename(n)) for n, kb in sizes.items()), reverse=True)[:count]


class PeakSampler:
    """The highest RssAnon (the process's own memory, without the shared
    libraries' file pages that VmHWM also counts) seen every 20 ms."""

    def __init__(self, pid):
        self.pid, self.peak, self.done = pid, 0, threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.done.wait(0.02):
            try:
                self.peak = max(self.peak, status_field(self.pid, "RssAnon"))
            except OSError:
                return

    def stop(self):
        self.done.set()
        self.thread.join(2)
        return self.peak


# ---- the outside client

def wrk(url, host, connections, seconds):
    """(requests/s, requests) of a keep-alive wrk run; fails on any error."""
    threads = min(connections, 2)
    out = subprocess.run(["wrk", "-t%d" % threads, "-c%d" % connections, "-d%ds" % seconds, "--timeout", "10s",
                          "-H", "Host: " + host, url],
                         check=True, capture_output=True, text=True, timeout=seconds + 30).stdout
    errors = re.search(r"Non-2xx or 3xx responses: (\d+)|Socket errors: .*", out)
    if errors:
        raise RuntimeError("wrk %s: %s\n%s" % (url, errors.group(0), out))
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    count = int(re.search(r"(\d+) requests in", out).group(1))
    return rate, count


def download(url, host):
    """MB/s of one download of the big file."""
    out = subprocess.run(["curl", "-sS", "--noproxy", "*", "--max-time", "120", "-o", "/dev/null", "-H",
                          "Host: " + host, "-w", "%{http_code} %{size_download} %{time_total}", url],
                         check=True, capture_output=True, text=True, timeout=150).stdout.split()
    if out[0] != "200" or int(out[1]) != BIG_SIZE:
        raise RuntimeError("download %s: status %s, %s bytes" % (url, out[0], out[1]))
    return BIG_SIZE / float(out[2]) / 1e6


def wait_until_served(url, host, timeout=20.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        result = subprocess.run(["curl", "-s", "--noproxy", "*", "--max-time", "2", "-o", "/dev/null", "-H",
                                 "Host: " + host, "-w", "%{http_code}", url], capture_output=True, text=True)
        if result.stdout == "200":
            return
        time.sleep(0.2)
    raise RuntimeError("%s never answered 200" % url)


def wait_for_port(port, proc, timeout=10.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise RuntimeError("process exited with %d before listening on %d" % (proc.returncode, port))
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nothing listens on %d" % port)


# ---- the ssh reverse tunnel

SSHD_CONFIG = """\
Port {port}
ListenAddress 127.0.0.1
HostKey {dir}/host_key
PidFile {dir}/sshd.pid
AuthorizedKeysFile {dir}/authorized_keys
# The keys live in a temp directory under world-writable /tmp.
StrictModes no
PermitRootLogin prohibit-password
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
AllowTcpForwarding remote
X11Forwarding no
PrintMotd no
"""


class SshTunnel:
    """sshd on a free loopback port and `ssh -R` from the device side to it:
    connections to 127.0.0.1:port reach `target` through the tunnel."""

    def __init__(self, work, target):
        self.dir = os.path.join(work, "ssh")
        os.makedirs(self.dir)
        self.sshd = self.ssh = None
        self.made_privsep = False
        for name in ("host_key", "user_key"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "ferrule bench " + name,
                            "-f", os.path.join(self.dir, name)], check=True, capture_output=True)
        shutil.copy(os.path.join(self.dir, "user_key.pub"), os.path.join(self.dir, "authorized_keys"))
        sshd_port = free_port()
        with open(os.path.join(self.dir, "sshd_config"), "w") as f:
            f.write(SSHD_CONFIG.format(port=sshd_port, dir=self.dir))
        # sshd insists on its privilege separation directory; made only if missing, removed again in stop().
        if not os.path.isdir("/run/sshd"):
            os.makedirs("/run/sshd", mode=0o755)
            self.made_privsep = True
        self.log = open(os.path.join(self.dir, "sshd.log"), "w")
        self.sshd = subprocess.Popen([SSHD, "-D", "-e", "-f", os.path.join(self.dir, "sshd_config")],
                                     stdout=self.log, stderr=subprocess.STDOUT)
        wait_for_port(sshd_port, self.sshd)
        self.port = free_port()
        self.ssh = subprocess.Popen(
            ["ssh", "-N", "-F", "/dev/null", "-i", os.path.join(self.dir, "user_key"), "-o", "IdentitiesOnly=yes",
             "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
             "-o", "GlobalKnownHostsFile=/dev/null", "-o", "BatchMode=yes", "-o", "ExitOnForwardFailure=yes",
             "-o", "LogLevel=ERROR", "-p", str(sshd_port), "-R", "127.0.0.1:%d:%s" % (self.port, target),
             "root@127.0.0.1"], stdout=self.log, stderr=subprocess.STDOUT)
        wait_for_port(self.port, self.ssh)

    def stop(self):
        for proc in (self.ssh, self.sshd):
            if proc and proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(5)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait(5)
        self.log.close()
        if self.made_privsep:
            shutil.rmtree("/run/sshd", ignore_errors=True)


# ---- instructions per request

def callgrind_totals(path):
    """The instruction count of one callgrind dump."""
    with open(path) as f:
        for line in f:
            if line.startswith("summary:") or line.startswith("totals:"):
                return int(line.split()[1])
    raise RuntimeError("no totals in %s" % path)


def count_instructions(args, work, target, url):
    """{(device side, concurrency): instructions per relayed request} of the
    static ferrule and of the floor under callgrind, counted from zeroed counters
    over one short wrk run each."""
    write_registration(work, CALLGRIND_KEY + ".info", CALLGRIND_KEY)
    figures = {}
    for side, key in (("ferrule", CALLGRIND_KEY), ("floor", FLOOR_CALLGRIND_KEY)):
        out = os.path.join(work, "callgrind-%s.out" % side)
        wrapper = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out,
                   # each dump names its functions in full, so one can be read alone
                   "--compress-strings=no", "--compress-pos=no"]
        if side == "ferrule":
            process = start_ferrule(args.static, work, "ferrule-callgrind", CALLGRIND_KEY + ".info", DEVICE_PORT,
                                    target, level=4, wrapper=wrapper)
            pid, stop = process.proc.pid, process.stop
        else:
            process = start_floor(args.floor, work, key, target, wrapper)
            pid, stop = process.pid, lambda: stop_floor(process)
        host = "%s.%s" % (key, DOMAIN)
        try:
            wait_until_served(url, host, timeout=120)
            wrk(url, host, 16, 2)  # warm-up: connections, pools, buffers
            for dump, c in enumerate((1, 16), 1):
                subprocess.run(["callgrind_control", "-z", str(pid)], check=True, capture_output=True)
                _, count = wrk(url, host, c, args.seconds)
                subprocess.run(["callgrind_control", "-d", str(pid)], check=True, capture_output=True)
                figures[(side, c)] = callgrind_totals("%s.%d" % (out, dump)) / count
            if args.profile and side == "ferrule":
                shutil.copy(out + ".1", args.profile + ".out")
                with open(args.profile, "w") as f:
                    subprocess.run(["callgrind_annotate", "--auto=no", "--inclusive=yes", "--threshold=95",
                                    out + ".1"], check=True, stdout=f, stderr=subprocess.STDOUT)
        finally:
            stop()
    return figures


def print_instructions(figures, seconds):
    print("instructions per relayed request (callgrind, all threads, %d s of wrk): " % seconds + "; ".join(
        "%s c=1 %.0f, c=16 %.0f" % (side, figures[(side, 1)], figures[(side, 16)]) for side in ("ferrule", "floor")))


# ---- the floor

def start_floor(floor, work, key, target, wrapper=()):
    """bench_relay_floor registered with `key`, trusting the "good" CA; its
    messages go to floor-KEY.log in `work`."""
    path = os.path.join(work, "floor-%s.log" % key)
    with open(path, "w") as log:
        process = subprocess.Popen([*wrapper, floor, key, DOMAIN, str(DEVICE_PORT), target], stdout=log,
                                   stderr=subprocess.STDOUT,
                                   env=dict(os.environ, SSL_CERT_FILE=os.path.join(work, "good-ca.pem")))
    process.log_path = path
    return process


def stop_floor(process):
    """Stops the floor; one that ended by itself says why, before the run's
    directory goes."""
    if process.poll() is not None:
        with open(process.log_path) as log:
            sys.stderr.write("the floor ended with %d:\n%s" % (process.returncode, log.read()))
    process.terminate()
    process.wait(10)


def static_build():
    """build-static/app/ferrule, configured when missing and brought up to date."""
    build = os.path.join(ROOT, "build-static")
    env = dict(os.environ, CCACHE_BASEDIR=os.path.abspath(ROOT), CCACHE_NOHASHDIR="1")
    openssl = subprocess.run(["bash", os.path.join(ROOT, "scripts", "cross", "sysroot.sh"), "--host", "--print"],
                             check=True, stdout=subprocess.PIPE, universal_newlines=True, env=env).stdout.strip()
    cache = os.path.join(build, "CMakeCache.txt")
    if os.path.exists(cache):
        with open(cache) as f:
            if "OPENSSL_ROOT_DIR:PATH=%s\n" % openssl not in f.read():
                # Made against another OpenSSL, whose library paths CMake keeps.
                shutil.rmtree(build)
    if not os.path.exists(cache):
        sys.stderr.write("building the static ferrule in %s\n" % build)
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                        "-DFERRULE_STATIC=ON", "-DFERRULE_TESTS=OFF", "-DOPENSSL_ROOT_DIR:PATH=" + openssl],
                       check=True, stdout=subprocess.DEVNULL, env=env)
    subprocess.run(["nice", "ninja", "-C", build, "ferrule"], check=True, stdout=subprocess.DEVNULL, env=env)
    return os.path.join(build, "app", "ferrule")


# ---- the run

def measure(args):
    work = tempfile.mkdtemp(prefix="ferrule-bench-relay-")
    nginx = relay = ferrule = static = tunnel = floor = None
    try:
        certs.make_ca(work, "good", "ferrule e2e good CA")
        certs.make_server_certificate(work, "good", DOMAIN)
        nginx = Nginx(locations="location / { access_log off; }", work=os.path.join(work, "nginx"))
        nginx.write("1k.html", b"x" * 1023 + b"\n")
        block = os.urandom(1 << 20)
        with open(os.path.join(nginx.root, "big.bin"), "wb") as f:
            for _ in range(BIG_SIZE >> 20):
                f.write(block)
        nginx.start()
        relay = start_devrelay(args.devrelay, work, "good", DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT, level=4)
        outside = "http://127.0.0.1:%d" % OUTSIDE_PORT
        if args.only_callgrind:
            print_instructions(count_instructions(args, work, nginx.authority(), outside + "/1k.html"), args.seconds)
            return 0
        tunnel = SshTunnel(work, nginx.authority())
        write_registration(work, "dev1.info", KEY)
        ferrule = start_ferrule(args.ferrule, work, "ferrule", "dev1.info", DEVICE_PORT, nginx.authority(), level=4)
        write_registration(work, STATIC_KEY + ".info", STATIC_KEY)
        static = start_ferrule(args.static, work, "ferrule-static", STATIC_KEY + ".info", DEVICE_PORT,
                               nginx.authority(), level=4)
        floor = start_floor(args.floor, work, FLOOR_KEY, nginx.authority())
        pid, static_pid = ferrule.proc.pid, static.proc.pid
        ferrules = (("ferrule", pid), ("ferrule static", static_pid))

        routes = [("direct", "http://127.0.0.1:%d" % nginx.port, nginx.authority(), None),
                  ("ssh -R", "http://127.0.0.1:%d" % tunnel.port, nginx.authority(), tunnel.ssh.pid),
                  ("ferrule", outside, "%s.%s" % (KEY, DOMAIN), pid),
                  ("ferrule static", outside, "%s.%s" % (STATIC_KEY, DOMAIN), static_pid),
                  ("floor", outside, "%s.%s" % (FLOOR_KEY, DOMAIN), floor.pid)]
        relayed = [route for route, *_ in routes if route.startswith("ferrule")]
        for _, base, host_header, _ in routes:
            wait_until_served(base + "/1k.html", host_header)
            wrk(base + "/1k.html", host_header, 16, 1)  # warm-up: connections, pools

        samplers = {name: PeakSampler(p) for name, p in ferrules}
        rates = {(route, c): [] for route, *_ in routes for c in (1, 16)}
        cpu = {(route, c): [] for route, *_ in routes for c in (1, 16)}
        split = {(route, c): [] for route, *_ in routes for c in (1, 16)}  # device side: user, system
        speeds = {route: [] for route, *_ in routes}
        big_cpu = {route: [] for route in ["ssh -R"] + relayed}
        for rep in range(args.reps):
            for c in (1, 16):
                for route, base, host_header, device_pid in routes:
                    watched = [p for p in (device_pid, relay.proc.pid if route in relayed + ["floor"] else None) if p]
                    before = [cpu_seconds(p) for p in watched]
                    split_before = cpu_split(device_pid) if device_pid else None
                    rate, count = wrk(base + "/1k.html", host_header, c, args.seconds)
                    rates[(route, c)].append(rate)
                    if watched:
                        cpu[(route, c)].append([(cpu_seconds(p) - b) * 1000.0 / count for p, b in zip(watched, before)])
                    if split_before:
                        split[(route, c)].append([(now - was) * 1e6 / count
                                                  for now, was in zip(cpu_split(device_pid), split_before)])
            hwm_small = {name: status_field(p, "VmHWM") for name, p in ferrules}
            for route, base, host_header, device_pid in routes:
                if route == "floor":
                    continue
                watched = [device_pid, relay.proc.pid] if route in relayed else [device_pid]
                before = [cpu_seconds(p) for p in watched if p]
                speeds[route].append(download(base + "/big.bin", host_header))
                after = [cpu_seconds(p) for p in watched if p]
                if after:
                    big_cpu[route].append([b - a for a, b in zip(before, after)])
            sys.stderr.write("repetition %d/%d done\n" % (rep + 1, args.reps))

        med = statistics.median
        print("medians of %d repetitions; wrk %d s per run, keep-alive; 100 MB by curl" % (args.reps, args.seconds))
        print("%-16s %10s %10s %10s %10s   %12s %14s" % ("case", "direct", "ssh -R", "ferrule", "static",
                                                           "ferrule/ssh", "ferrule/direct"))
        for c in (1, 16):
            d, s, f, fs = (med(rates[(route, c)]) for route in ("direct", "ssh -R", "ferrule", "ferrule static"))
            print("%-16s %10.0f %10.0f %10.0f %10.0f   %12.2f %14.2f" % ("1 KB c=%d req/s" % c, d, s, f, fs, f / s,
                                                                        f / d))
        print("floor req/s: " + ", ".join("c=%d %.0f" % (c, med(rates[("floor", c)])) for c in (1, 16)))
        d, s, f, fs = (med(speeds[route]) for route in ("direct", "ssh -R", "ferrule", "ferrule static"))
        print("%-16s %10.1f %10.1f %10.1f %10.1f   %12.2f %14.2f" % ("100 MB MB/s", d, s, f, fs, f / s, f / d))
        ratios = {}
        for c in (1, 16):
            ssh = med(x[0] for x in cpu[("ssh -R", c)])
            own = {route: med(x[0] for x in cpu[(route, c)]) for route in relayed + ["floor"]}
            ratios.update({(route, c): own[route] / ssh for route in relayed + ["floor"]})
            print("CPU s per 1000 requests, 1 KB c=%-2d: ferrule %.3f (%.2fx the ssh client), static %.3f (%.2fx), "
                  "floor %.3f (%.2fx), dev relay %.3f, ssh client %.3f"
                  % (c, own["ferrule"], ratios[("ferrule", c)], own["ferrule static"], ratios[("ferrule static", c)],
                     own["floor"], ratios[("floor", c)], med(x[1] for x in cpu[("ferrule", c)]), ssh))
            print("  ferrule static / floor at c=%d: %.2fx" % (c, own["ferrule static"] / own["floor"]))
        for c in (1, 16):
            print("device side per request, 1 KB c=%-2d: " % c + "; ".join(
                "%s user %.1f us, system %.1f us" % (route, med(x[0] for x in split[(route, c)]),
                                                     med(x[1] for x in split[(route, c)]))
                for route in relayed + ["floor", "ssh -R"]))
        print("CPU s per 100 MB download: ferrule %.2f, static %.2f, dev relay %.2f, ssh client %.2f"
              % (med(c[0] for c in big_cpu["ferrule"]), med(c[0] for c in big_cpu["ferrule static"]),
                 med(c[1] for c in big_cpu["ferrule"]), med(c[0] for c in big_cpu["ssh -R"])))
        threads = sorted(int(t) for t in os.listdir("/proc/%d/task" % pid))
        print("ferrule CPU s over the whole run by thread: " + ", ".join(
            "%s %.2f" % ("main" if tid == pid else "thread %d" % tid, cpu_seconds(pid, tid)) for tid in threads))
        hwm = {}
        for name, p in ferrules:
            hwm[name] = status_field(p, "VmHWM")
            print("%s peak RSS (VmHWM): %d kB after the 1 KB runs, %d kB after the 100 MB downloads; "
                  "peak RssAnon %d kB; now RssAnon %d kB, RssFile %d kB, threads %d"
                  % (name, hwm_small[name], hwm[name], samplers[name].stop(), status_field(p, "RssAnon"),
                     status_field(p, "RssFile"), status_field(p, "Threads")))
        print("ferrule static resident now by mapping: " + ", ".join(
            "%s %d kB" % (name, kb) for kb, name in largest_mappings(static_pid, 10)))
        if not args.no_callgrind:
            print_instructions(count_instructions(args, work, nginx.authority(), outside + "/1k.html"), args.seconds)
        for route in relayed + ["floor"]:
            print("target %s CPU per request <= 1.5x the ssh client's: " % route + ", ".join(
                "c=%d %s (%.2fx)" % (c, "met" if ratios[(route, c)] <= 1.5 else "MISSED", ratios[(route, c)])
                for c in (1, 16)))
        peak = hwm["ferrule static"]
        print("target static ferrule peak RSS <= 6 MB (6144 kB): %s (%d kB; dynamic %d kB)"
              % ("met" if peak <= 6144 else "MISSED", peak, hwm["ferrule"]))
        return 0
    finally:
        for daemon in (ferrule, static):
            if daemon:
                daemon.stop()
        if floor:
            stop_floor(floor)
        if relay:
            relay.stop(signal.SIGTERM)
        if tunnel:
            tunnel.stop()
        if nginx:
            nginx.cleanup()
        shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--inner", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("--reps", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--static", help="the statically linked ferrule (default: build-static/, kept up to date)")
    parser.add_argument("--no-callgrind", action="store_true", help="skip the instruction count")
    parser.add_argument("--profile", help="file for the annotated callgrind profile of the c=1 run")
    parser.add_argument("--only-callgrind", action="store_true", help="only the instruction count")
    parser.add_argument("--floor", default=os.path.join(ROOT, "build", "bench", "bench_relay_floor"),
                        help="the protocol's floor (bench_relay_floor)")
    parser.add_argument("ferrule", nargs="?", default=os.path.join(ROOT, "build", "app", "ferrule"))
    parser.add_argument("devrelay", nargs="?", default=os.path.join(ROOT, "build", "tools", "devrelay",
                                                                    "ferrule-devrelay"))
    args = parser.parse_args()
    args.ferrule, args.devrelay, args.floor = (os.path.abspath(path) for path in (args.ferrule, args.devrelay,
                                                                                  args.floor))
    if args.profile:
        args.profile = os.path.abspath(args.profile)
    if args.inner:
        return measure(args)
    if os.geteuid() != 0:
        sys.exit("run_bench.py needs root to make a network namespace")
    tools = ["wrk", "curl", "ssh", "ssh-keygen", SSHD, "nginx", "openssl"]
    if not args.no_callgrind:
        tools += ["valgrind", "callgrind_control", "callgrind_annotate"]
    for tool in tools:
        if not shutil.which(tool):
            sys.exit("missing %s: scripts/setup.sh installs it (scripts/packages/bench.txt)" % tool)
    for binary in (args.ferrule, args.devrelay, args.floor):
        if not os.access(binary, os.X_OK):
            sys.exit("missing %s: build it with ninja -C build" % binary)
    args.static = os.path.abspath(args.static) if args.static else static_build()
    limit = 300 + args.reps * (args.seconds * 8 + 80)
    options = ["--reps", str(args.reps), "--seconds", str(args.seconds)]
    options += ["--static", args.static] if args.static else []
    options += ["--no-callgrind"] if args.no_callgrind else []
    options += ["--only-callgrind"] if args.only_callgrind else []
    options += ["--profile", args.profile] if args.profile else []
    options += ["--floor", args.floor]
    return run_in_namespace("ferrule-bench-%d" % os.getpid(),
                            [DOMAIN] + ["%s.%s" % (key, DOMAIN) for key in (KEY, STATIC_KEY, CALLGRIND_KEY, FLOOR_KEY,
                                                                 FLOOR_CALLGRIND_KEY)],
                            [sys.executable, os.path.abspath(__file__), "--inner"] + options
                            + [args.ferrule, args.devrelay], timeout=limit)


if __name__ == "__main__":
    sys.exit(main())
