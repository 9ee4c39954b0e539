#!/usr/bin/env python3
"""Video streaming over SCTP, side by side on the same flat namespace path (the
IPv4 host pair) and the same 100 MB file in one run:

  ferrule   nginx -> ferrule -> SCTP over ICE -> ferrule-p2pclient
  raw       ferrule-p2pclient --answer --serve (a plain usrsctp sender on
            libnice, no HTTP) -> ferrule-p2pclient: the baseline
  curl      curl fetching the file from nginx on the device's loopback

Printed: median goodput of each and the ratios ferrule/raw and ferrule/curl;
ferrule's CPU seconds per GB (utime+stime from /proc around each transfer)
beside the raw sender's (its own getrusage from query to end); the time from
the query to the first video byte; ferrule's threads and wakeups per second
(context switches from /proc/PID/status) while idle with one live session.
With --slow, also ferrule's peak RSS while a client reads the 100 MB at
1 MiB/s (about 100 s; the peak is reset first through /proc/PID/clear_refs).

    python3 bench/stream/run_bench.py [--reps N] [--slow] [FERRULE DEVRELAY P2PCLIENT]

Defaults: the build/ binaries, 3 repetitions. Needs root."""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
sys.path.insert(0, os.path.join(ROOT, "scripts"))
from harness import topology  # noqa: E402
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.p2p_client import run_client  # noqa: E402
from harness.proc_figures import cpu_seconds, reset_peak_rss, status_field, wakeups  # noqa: E402
from harness.video_device import DEVICE_URL, DOMAIN, binaries_from, Device, make_sample  # noqa: E402

STAND_IN_PORT = 8002


def through_ferrule(device, output):
    pid = device.ferrule.proc.pid
    before = cpu_seconds(pid)
    # The client's IPv4 address only, as for the raw pair: left free, ICE
    # prefers the IPv6 host pair, whose kernel send path costs more per packet.
    result, _ = device.download("file=sample.bin", "-a", device.net.client_addresses[0], name=output)
    used = cpu_seconds(pid) - before
    if result.status != 0:
        raise RuntimeError("ferrule download failed: %r" % result)
    download = result.downloads[0]
    return download["bytes-per-s"], used / (download["bytes"] / 1e9), download["first-byte-ms"]


def raw_usrsctp(device, work):
    """The client against the stand-in sender in the device's namespace."""
    net = device.net
    address = net.device_addresses[0]
    stand_in = LoggedProcess("stand-in", net.device.command(
        sys.executable, os.path.join(ROOT, "scripts", "harness", "nice_device.py"), "--listen",
        "%s:%d" % (address, STAND_IN_PORT), "--tool", device.binaries.p2pclient, "--", "-a", address, "--serve",
        device.sample[0], "--hold", "60"), work)
    try:
        stand_in.wait_for("listening on")
        result = run_client(device.binaries.p2pclient, "http://%s:%d" % (address, STAND_IN_PORT), command=net.client.command,
                            addresses=[net.client_addresses[0]], verbose=False,
                            extra=["-q", "file=sample.bin", "-o", os.path.join(work, "raw")])
        if result.status != 0:
            raise RuntimeError("raw download failed: %r" % result)
        served = stand_in.wait_for(r"^served ", timeout=10)[0]
        fields = dict(word.split("=", 1) for word in served.split()[1:] if "=" in word)
        download = result.downloads[0]
        return download["bytes-per-s"], int(fields["cpu-ms"]) / 1000 / (download["bytes"] / 1e9)
    finally:
        stand_in.stop()


def curl(device):
    done = subprocess.run(device.net.device.command(
        "curl", "-sS", "--noproxy", "*", "-o", "/dev/null", "-w", "%{speed_download}",
        "http://%s/video.vdo?file=sample.bin" % device.nginx.authority()), capture_output=True, text=True, timeout=120)
    return float(done.stdout)


def idle_figures(device, seconds=5):
    """Threads and wakeups/s of ferrule with one established session that
    carries no connection (the client holds the pair)."""
    pid = device.ferrule.proc.pid
    client = LoggedProcess("holder", device.net.client.command(
        device.binaries.p2pclient, "-s", DOMAIN, "--hold", str(seconds + 10), DEVICE_URL), device.work)
    try:
        device.ferrule.wait_for(r"\[ferrule\] New session established", timeout=30)
        time.sleep(1)
        start = wakeups(pid)
        time.sleep(seconds)
        return status_field(pid, "Threads"), (wakeups(pid) - start) / seconds
    finally:
        client.stop()


def slow_reader_peak(device):
    """(RSS before, peak RSS during) in kB of ferrule while the client reads
    at 1 MiB/s."""
    pid = device.ferrule.proc.pid
    reset_peak_rss(pid)
    before = status_field(pid, "VmRSS")
    result, path = device.download("file=sample.bin", "--rate", "1M", timeout=30, name="slow")
    if result.status != 0:
        raise RuntimeError("slow download failed: %r" % result)
    os.unlink(path)
    return before, status_field(pid, "VmHWM")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--slow", action="store_true", help="also the peak RSS with a 1 MiB/s reader")
    parser.add_argument("binaries", nargs="*", help="FERRULE DEVRELAY P2PCLIENT")
    args = parser.parse_args()
    try:
        binaries = binaries_from(args.binaries, ROOT)
    except ValueError as error:
        parser.error(str(error))
    work = tempfile.mkdtemp(prefix="ferrule-bench-stream-")
    device = None
    try:
        sample = make_sample(work)
        os.makedirs(os.path.join(work, "device"))
        device = Device(topology.flat, os.path.join(work, "device"), binaries, sample)
        figures = {"ferrule": [], "raw": [], "curl": [], "ferrule-cpu": [], "raw-cpu": [], "first-byte": []}
        for rep in range(args.reps):
            rate, cpu, first = through_ferrule(device, "out-%d" % rep)
            figures["ferrule"].append(rate)
            figures["ferrule-cpu"].append(cpu)
            figures["first-byte"].append(first)
            rate, cpu = raw_usrsctp(device, device.work)
            figures["raw"].append(rate)
            figures["raw-cpu"].append(cpu)
            figures["curl"].append(curl(device))
            for name in ("out-%d" % rep, "raw"):
                path = os.path.join(device.work, name)
                if os.path.exists(path):
                    os.unlink(path)
        threads, rate = idle_figures(device)
        median = {name: statistics.median(values) for name, values in figures.items()}
        print("100 MB, %d repetitions, medians:" % args.reps)
        for name in ("ferrule", "raw", "curl"):
            print("  %-8s %8.1f MB/s   (%s)" % (name, median[name] / 1e6,
                                                 ", ".join("%.1f" % (v / 1e6) for v in figures[name])))
        print("  ferrule / raw usrsctp   %.2f   (goal >= 0.8)" % (median["ferrule"] / median["raw"]))
        print("  ferrule / curl          %.2f" % (median["ferrule"] / median["curl"]))
        print("  CPU s per GB: ferrule %.2f, raw sender %.2f, ratio %.2f   (goal <= 1.25)"
              % (median["ferrule-cpu"], median["raw-cpu"], median["ferrule-cpu"] / median["raw-cpu"]))
        print("  first video byte after the query: %d ms" % median["first-byte"])
        print("  idle with one live session: %d threads, %.1f wakeups/s" % (threads, rate))
        if args.slow:
            before, peak = slow_reader_peak(device)
            print("  ferrule RSS with a 1 MiB/s reader: %d kB before, peak %d kB" % (before, peak))
    finally:
        if device is not None:
            device.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
