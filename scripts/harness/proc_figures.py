"""A running process's figures from /proc, for benchmarks and tests that
measure the daemon from outside."""
import os

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
