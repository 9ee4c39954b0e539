"""A running process's figures from /proc, for benchmarks and tests that
measure the daemon from outside.

Tests compare counts (descriptors, sockets, threads, RSS) only as settled
readings, at both ends:

    before = settled(lambda: descriptor_kinds(pid, without_tcp=True), "ferrule's descriptors")
    ...   # open a session, let it close
    assert_settles_at(lambda: descriptor_kinds(pid, without_tcp=True), before, "ferrule's descriptors")

A daemon opens and closes things on its own timers (a relay connection
every few seconds, a name lookup); a reading taken at one instant can catch
one of them half made."""
import collections
import os
import re
import time

CLOCK_TICK = os.sysconf("SC_CLK_TCK")


def cpu_split(pid, tid=None):
    """User and system CPU time of a process, or of one of its threads."""
    with open("/proc/%d/task/%d/stat" % (pid, tid) if tid else "/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()  # the name may hold spaces and ")"
    return int(fields[11]) / CLOCK_TICK, int(fields[12]) / CLOCK_TICK  # utime, stime


def cpu_seconds(pid, tid=None):
    """User plus system CPU time of a process, or of one of its threads."""
    return sum(cpu_split(pid, tid))


def status_field(pid, name):
    """A number from /proc/PID/status (kB for the Vm* fields), 0 when absent."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(name + ":"):
                return int(line.split()[1])
    return 0


def wakeups(pid):
    """Context switches so far of the main thread: the times it was woken."""
    return status_field(pid, "voluntary_ctxt_switches") + status_field(pid, "nonvoluntary_ctxt_switches")


def reset_peak_rss(pid):
    """Starts VmHWM again from the current resident size."""
    with open("/proc/%d/clear_refs" % pid, "w") as f:
        f.write("5")


def descriptor_kinds(pid, without_tcp=False):
    """A process's open descriptors counted by kind: "file" for paths, else
    the kind its link names ("socket", "pipe", "anon_inode", ...).
    without_tcp leaves out the sockets listed in the TCP tables, for a
    daemon whose connections to a relay or a target come and go on their
    own; a TCP socket not yet connecting is not listed there, and counts."""
    tcp = set()
    if without_tcp:
        for table in ("tcp", "tcp6"):
            with open("/proc/%d/net/%s" % (pid, table)) as f:
                tcp |= {line.split()[9] for line in f.read().splitlines()[1:]}
    kinds = {}
    for name in os.listdir("/proc/%d/fd" % pid):
        try:
            target = os.readlink("/proc/%d/fd/%s" % (pid, name))
        except OSError:  # closed between the listing and the look
            continue
        inode = re.match(r"socket:\[(\d+)\]", target)
        if inode and inode.group(1) in tcp:
            continue
        kind = "file" if target.startswith("/") else re.sub(r"[:\[].*", "", target)
        kinds[kind] = kinds.get(kind, 0) + 1
    return kinds


def _agree(values, tolerance):
    if tolerance:
        return max(values) - min(values) <= tolerance
    return all(value == values[0] for value in values)


def _read_until(read, accept, agree, interval, timeout):
    """Reads every `interval` s until the last `agree` readings pass
    accept(); at most `timeout` s and timeout/interval + agree readings.
    Returns (passed, the last readings)."""
    deadline = time.monotonic() + timeout
    last = collections.deque(maxlen=agree)
    for _ in range(int(timeout / interval) + agree):
        last.append(read())
        if len(last) == agree and accept(list(last)):
            return True, list(last)
        if time.monotonic() >= deadline:
            break
        time.sleep(interval)
    return False, list(last)


def settled(read, what, agree=5, interval=0.1, timeout=10.0, tolerance=0):
    """The value of read() once `agree` readings in a row, `interval` s
    apart, are the same: the figure with nothing in motion. Takes at least
    (agree - 1) * interval s, at most `timeout` s.

    read       a function of no arguments returning a number or a dict, e.g.
               lambda: descriptor_kinds(pid, without_tcp=True)
               lambda: status_field(pid, "Threads")
    what       names the figure in the failure message
    tolerance  for numbers only: readings agree when they lie within it of
               each other (e.g. a few kB of VmRSS); 0 means equal
    Raises AssertionError with the last readings when they do not settle."""
    passed, last = _read_until(read, lambda values: _agree(values, tolerance), agree, interval, timeout)
    if not passed:
        raise AssertionError("%s did not settle within %.1f s; last readings: %r" % (what, timeout, last))
    return last[-1]


def assert_settles_at(read, expected, what, agree=5, interval=0.1, timeout=10.0, tolerance=0):
    """Waits until `agree` readings in a row equal `expected` (within
    `tolerance` for numbers), e.g. a daemon's descriptors back at the
    settled reading taken before a session; returns the last reading.
    Takes the arguments of settled() and is bounded the same way. Raises
    AssertionError naming `what`, `expected` and the last readings when the
    time is up."""
    passed, last = _read_until(read, lambda values: _agree(values + [expected], tolerance), agree, interval,
                               timeout)
    if not passed:
        raise AssertionError("%s did not return to %r within %.1f s; last readings: %r"
                             % (what, expected, timeout, last))
    return last[-1]
