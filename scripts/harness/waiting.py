"""A bounded wait for what a test cannot learn from a log line (a file
growing, a port closing). For log lines use LoggedProcess.wait_for, for
counts of descriptors, threads or memory proc_figures.settled."""
import time


def wait_until(condition, what, timeout=15.0, interval=0.05):
    """Returns condition()'s first true value, tried every `interval` s;
    raises AssertionError naming `what` when `timeout` s have passed."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise AssertionError("no %s within %.1f s" % (what, timeout))
        time.sleep(interval)
