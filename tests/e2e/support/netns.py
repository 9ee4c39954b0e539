"""Runs a command inside a network namespace made for it, with only a loopback
interface and its own hosts file: `ip netns exec` mounts
/etc/netns/NAME/hosts over /etc/hosts, so test names such as KEY.relay.test
resolve to 127.0.0.1 without touching the machine's own configuration. The
namespace, its hosts file and every process left in it are removed
afterwards, also when the command fails. Needs root."""
import os
import shutil
import signal
import subprocess


def run_in_namespace(name, hostnames, argv, timeout):
    """Runs argv inside a fresh namespace NAME in which `hostnames` resolve
    to 127.0.0.1; returns its exit status."""
    etc = "/etc/netns/" + name
    made_parent = not os.path.isdir("/etc/netns")
    status = 1
    try:
        os.makedirs(etc)
        with open(os.path.join(etc, "hosts"), "w") as hosts:
            hosts.write("127.0.0.1 localhost\n::1 localhost\n")
            hosts.write("127.0.0.1 %s\n" % " ".join(hostnames))
        subprocess.run(["ip", "netns", "add", name], check=True)
        subprocess.run(["ip", "netns", "exec", name, "ip", "link", "set", "lo", "up"], check=True)
        status = subprocess.run(["ip", "netns", "exec", name, *argv], timeout=timeout).returncode
    finally:
        # Whatever the inner run left behind goes with the namespace.
        pids = subprocess.run(["ip", "netns", "pids", name], capture_output=True, text=True).stdout.split()
        for pid in pids:
            try:
                os.kill(int(pid), signal.SIGKILL)
            except (ProcessLookupError, ValueError):
                pass
        subprocess.run(["ip", "netns", "delete", name], capture_output=True)
        shutil.rmtree(etc, ignore_errors=True)
        if made_parent:
            try:
                os.rmdir("/etc/netns")
            except OSError:
                pass
    return status
