"""A network namespace with only its loopback interface up and its own hosts
file. `ip netns exec NAME ...` bind-mounts /etc/netns/NAME/hosts over
/etc/hosts for the command it runs, so names resolve there without touching
the machine's own configuration. remove() kills whatever still runs in the
namespace, deletes it and its /etc/netns entry (and /etc/netns itself when
this object made it and it is empty again). Needs root."""
import os
import shutil
import signal
import subprocess

ETC = "/etc/netns"


def _ip(*args, check=False):
    # Own session: a Ctrl-C at the terminal must not kill the clean-up half way.
    return subprocess.run(["ip", *args], check=check, capture_output=True, text=True, timeout=30,
                          start_new_session=True)


class Namespace:
    def __init__(self, name, hosts):
        """hosts: {address: [names]} for the namespace's hosts file;
        localhost is always there."""
        self.name = name
        self.hosts = hosts
        self.etc = os.path.join(ETC, name)
        self.made_parent = False
        self.created = False

    def create(self):
        self.made_parent = not os.path.isdir(ETC)
        os.makedirs(self.etc)
        with open(os.path.join(self.etc, "hosts"), "w") as f:
            f.write("127.0.0.1 localhost\n::1 localhost\n")
            for address, names in self.hosts.items():
                f.write("%s %s\n" % (address, " ".join(names)))
        self.created = True
        _ip("netns", "add", self.name, check=True)
        _ip("netns", "exec", self.name, "ip", "link", "set", "lo", "up", check=True)
        return self

    def command(self, *args):
        """The argument list that runs args inside the namespace."""
        return ["ip", "netns", "exec", self.name, *args]

    def pids(self):
        return [int(pid) for pid in _ip("netns", "pids", self.name).stdout.split() if pid.isdigit()]

    def remove(self):
        if self.created:
            for pid in self.pids():
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            _ip("netns", "delete", self.name)
            self.created = False
        shutil.rmtree(self.etc, ignore_errors=True)
        if self.made_parent:
            try:
                os.rmdir(ETC)
            except OSError:
                pass
            self.made_parent = False

    def __enter__(self):
        try:
            return self.create()
        except BaseException:
            self.remove()
            raise

    def __exit__(self, *exc):
        self.remove()
        return False


def run_in_namespace(name, hostnames, argv, timeout):
    """Runs argv inside a fresh namespace NAME in which `hostnames` resolve
    to 127.0.0.1; returns its exit status. The namespace and whatever still
    runs in it are gone afterwards, also when the command fails."""
    with Namespace(name, {"127.0.0.1": list(hostnames)}) as namespace:
        return subprocess.run(namespace.command(*argv), timeout=timeout).returncode
