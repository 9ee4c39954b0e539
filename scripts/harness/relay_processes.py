"""Starting ferrule-devrelay and ferrule against each other on loopback
ports, with the files they need, as the relay tests and benchmark do."""
import os
import re
import shlex

from harness.logged_process import LoggedProcess

DOMAIN = "relay.test"


def start_devrelay(devrelay, work, ca, device_port, plain_port, outside_port, name="devrelay", level=5,
                   address="127.0.0.1"):
    """The dev relay with CA's server certificate on `address`, once it
    listens for outside clients."""
    relay = LoggedProcess(name, [devrelay, "-c", os.path.join(work, ca + "-server.pem"),
                                 "-k", os.path.join(work, ca + "-server.key"),
                                 "-d", "%s:%d" % (address, device_port), "-p", "%s:%d" % (address, plain_port),
                                 "-o", "%s:%d" % (address, outside_port), "-P", "5", "-a", "30", "-l", str(level)],
                          work)
    relay.wait_for(r"Listening for outside clients on %s:%d" % (re.escape(address), outside_port))
    return relay


def write_registration(work, name, key, mtime=None):
    path = os.path.join(work, name)
    with open(path, "w") as f:
        f.write("# written by the test\nDeviceRelayKey = %s\n" % key)
    if mtime is not None:
        os.utime(path, (mtime, mtime))
    return path


def start_ferrule(ferrule, work, name, registration, relay_port, target, extra_env=None, level=5, wrapper=None):
    """ferrule trusting the "good" CA, started through `wrapper` (a command
    line such as qemu-ppc or valgrind) when given, else through
    FERRULE_WRAPPER when that is set."""
    if wrapper is None:
        wrapper = shlex.split(os.environ.get("FERRULE_WRAPPER", ""))
    return LoggedProcess(name, [*wrapper, ferrule, "-r", "%s:%d" % (DOMAIN, relay_port), "-s", "stun." + DOMAIN,
                                "-f", os.path.join(work, registration), "-t", target, "-l", str(level)],
                         work, env=dict({"SSL_CERT_FILE": os.path.join(work, "good-ca.pem")}, **(extra_env or {})))
