#!/usr/bin/env python3
"""ICE session set-up, side by side in one run on each of the three networks
of the peer-to-peer tests (flat, device behind a NAT, both behind NATs):

  ferrule   ferrule-p2pclient posts through the dev relay to ferrule's
            "/sg/sessions"; timed in ferrule's log from the request's arrival
            ("Handling new session request") to "ICE session established"
  libnice   the same client posts to nice_device.py, whose agent
            (ferrule-p2pclient --answer, libnice, controlling) runs in the
            device's namespace; timed by that agent from reading the request
            to its nominated pair (its answer-ms + connect-ms)

Both device sides use the same STUN server (coturn) and the same client.
Printed per network: the medians, the ratio ferrule / libnice (goal <= 1),
the client's own POST-to-connected time for both (ferrule's includes the
relay's hop), the time from the request to the 201 answer (gathering) of
both with the STUN server answering, and ferrule's with it silent (its port
dropped in the server's namespace), in ferrule's log and as the client saw
it.

    python3 bench/ice/run_bench.py [--reps N] [FERRULE DEVRELAY P2PCLIENT]

Defaults: the build/ binaries, 5 repetitions. Needs root."""
import argparse
import os
import re
import shutil
import statistics
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
sys.path.insert(0, os.path.join(ROOT, "scripts"))
from harness import topology  # noqa: E402
from harness.logged_process import LoggedProcess  # noqa: E402
from harness.p2p_client import run_client  # noqa: E402
from harness.video_device import DEVICE_URL, DOMAIN, binaries_from, Device, make_sample  # noqa: E402

SHAPES = (("flat", topology.flat), ("device behind NAT", topology.device_behind_nat),
          ("both behind NATs", topology.both_behind_nat))
STAND_IN_PORT = 8002
STUN_PORT = 3478
ICE_TIMEOUT = 10
ARRIVED = r"\[connreqhandler\] Handling new session request"
ANSWERED = r"\[connreqhandler\] Found candidates, starting connectivity checks"
ESTABLISHED = r"\[connreqhandler\] ICE session established: "
SILENCE = "ferrule_bench_silent_stun"


def log_time(line):
    """Seconds since midnight of a ferrule log line's time stamp."""
    found = re.match(r"\d{4}-\d\d-\d\d[ T](\d\d):(\d\d):(\d\d(?:\.\d+)?)", line)
    if not found:
        raise RuntimeError("no time stamp in %r" % line)
    hours, minutes, seconds = found.groups()
    return int(hours) * 3600 + int(minutes) * 60 + float(seconds)


def log_ms(first, second):
    return ((log_time(second) - log_time(first)) % 86400) * 1000


def ferrule_once(device):
    """(request to established, request to 201) in ferrule's log, and the
    client's (POST to 201, POST to connected), in ms."""
    ferrule = device.ferrule
    mark = ferrule.mark()
    result = run_client(device.binaries.p2pclient, DEVICE_URL, command=device.net.client.command, stun=DOMAIN,
                        verbose=False, ice_timeout=ICE_TIMEOUT, timeout=ICE_TIMEOUT + 60)
    if result.status != 0 or not result.timing:
        raise RuntimeError("ferrule session failed: %r" % result)
    arrived = ferrule.wait_for(ARRIVED, start=mark, timeout=10)[0]
    answered = ferrule.wait_for(ANSWERED, start=mark, timeout=10)[0]
    established = ferrule.wait_for(ESTABLISHED, start=mark, timeout=10)[0]
    timing = result.timing
    return (log_ms(arrived, established), log_ms(arrived, answered), timing["answer-ms"],
            timing["answer-ms"] + timing["connect-ms"])


def start_stand_in(device):
    """nice_device.py on the relay side's public address (reachable from the
    client in every shape); its agents run in the device's namespace."""
    net = device.net
    address = net.server_addresses[0]
    agent = net.device.command(device.binaries.p2pclient, "-s", "stun." + DOMAIN, "-t", str(ICE_TIMEOUT))
    stand_in = LoggedProcess("stand-in", net.server.command(
        sys.executable, os.path.join(ROOT, "scripts", "harness", "nice_device.py"), "--listen",
        "%s:%d" % (address, STAND_IN_PORT), "--tool", agent[0], "--", *agent[1:]), device.work)
    try:
        stand_in.wait_for("listening on")
    except BaseException:
        stand_in.stop()
        raise
    return stand_in, "http://%s:%d" % (address, STAND_IN_PORT)


def libnice_once(device, stand_in, url):
    """(request to nominated pair by the controlling agent, request to its
    answer, the client's POST to connected) in ms."""
    mark = stand_in.mark()
    result = run_client(device.binaries.p2pclient, url, command=device.net.client.command, stun=DOMAIN,
                        verbose=False, ice_timeout=ICE_TIMEOUT, timeout=ICE_TIMEOUT + 60)
    if result.status != 0 or not result.timing:
        raise RuntimeError("libnice session failed: %r" % result)
    line = stand_in.wait_for(r"^timing ", start=mark, timeout=ICE_TIMEOUT + 5)[0]
    fields = dict(word.split("=", 1) for word in line.split()[1:] if "=" in word)
    return (int(fields["answer-ms"]) + int(fields["connect-ms"]), int(fields["answer-ms"]),
            result.timing["answer-ms"] + result.timing["connect-ms"])


def silence_stun(net, on):
    """Drops (on) or lets through again the STUN server's port: no answer,
    no ICMP error."""
    if on:
        table = ["inet", SILENCE]
        net.topology.run(net.server, "nft", "add", "table", *table)
        net.topology.run(net.server, "nft", "add", "chain", *table, "input",
                         "{ type filter hook input priority -10 ; }")
        net.topology.run(net.server, "nft", "add", "rule", *table, "input", "udp", "dport", str(STUN_PORT), "drop")
    else:
        net.topology.run(net.server, "nft", "delete", "table", "inet", SILENCE)


def silent_answer_once(device):
    """(request to 201 in ferrule's log, the client's POST to 201) in ms with
    the STUN server silent. The client gathers no server-reflexive
    candidate, so that its own wait does not count; whether ICE then
    succeeds does not matter here."""
    ferrule = device.ferrule
    mark = ferrule.mark()
    result = run_client(device.binaries.p2pclient, DEVICE_URL, command=device.net.client.command, verbose=False,
                        ice_timeout=2, timeout=60)
    if not result.timing and result.status not in (0, 5):
        raise RuntimeError("no answer with the STUN server silent: %r" % result)
    arrived = ferrule.wait_for(ARRIVED, start=mark, timeout=10)[0]
    answered = ferrule.wait_for(ANSWERED, start=mark, timeout=10)[0]
    client = result.timing["answer-ms"] if result.timing else None
    return log_ms(arrived, answered), client


def measure(shape, work, binaries, sample, reps):
    figures = {name: [] for name in ("ferrule", "libnice", "ferrule-client", "libnice-client", "answer",
                                     "answer-client", "silent", "silent-client", "libnice-answer")}
    device = Device(shape, work, binaries, sample, ferrule_options=["-l", "connreqhandler:6"])
    stand_in = None
    try:
        stand_in, url = start_stand_in(device)
        for _ in range(reps):
            established, answer, answer_client, connected = ferrule_once(device)
            figures["ferrule"].append(established)
            figures["answer"].append(answer)
            figures["answer-client"].append(answer_client)
            figures["ferrule-client"].append(connected)
            nominated, answer, connected = libnice_once(device, stand_in, url)
            figures["libnice"].append(nominated)
            figures["libnice-answer"].append(answer)
            figures["libnice-client"].append(connected)
        silence_stun(device.net, True)
        for _ in range(reps):
            answer, client = silent_answer_once(device)
            figures["silent"].append(answer)
            if client is not None:
                figures["silent-client"].append(client)
    finally:
        if stand_in is not None:
            stand_in.stop()
        device.stop()
    return figures


def show(values):
    return "%6.0f ms  (%s)" % (statistics.median(values), ", ".join("%.0f" % value for value in values)) \
        if values else "     -"


def median(values):
    return "%.0f ms" % statistics.median(values) if values else "-"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--reps", type=int, default=5)
    parser.add_argument("binaries", nargs="*", help="FERRULE DEVRELAY P2PCLIENT")
    args = parser.parse_args()
    try:
        binaries = binaries_from(args.binaries, ROOT)
    except ValueError as error:
        parser.error(str(error))
    work = tempfile.mkdtemp(prefix="ferrule-bench-ice-")
    try:
        sample = make_sample(work, size=1000)
        print("ICE set-up, %d repetitions, medians (each run in brackets):" % args.reps)
        for number, (name, shape) in enumerate(SHAPES):
            directory = os.path.join(work, "shape-%d" % number)
            os.makedirs(directory)
            figures = measure(shape, directory, binaries, sample, args.reps)
            ferrule, libnice = statistics.median(figures["ferrule"]), statistics.median(figures["libnice"])
            print("%s:" % name)
            print("  request to established   ferrule %s" % show(figures["ferrule"]))
            print("                           libnice %s" % show(figures["libnice"]))
            print("  ferrule / libnice        %.2f   (goal <= 1)" % (ferrule / libnice if libnice else float("inf")))
            print("  client POST to connected ferrule %s   (through the relay)" % show(figures["ferrule-client"]))
            print("                           libnice %s" % show(figures["libnice-client"]))
            print("  request to answer        ferrule %s (client saw %s), libnice %s"
                  % (median(figures["answer"]), median(figures["answer-client"]), median(figures["libnice-answer"])))
            print("  ... STUN server silent   ferrule %s (client saw %s)"
                  % (median(figures["silent"]), median(figures["silent-client"])))
            sys.stdout.flush()
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
