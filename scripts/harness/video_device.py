"""The device's side of a peer-to-peer video path, for the end-to-end tests
and the stream benchmark: a network of the given shape (harness.topology)
with coturn and ferrule-devrelay on the relay side, and on the device
ferrule, nginx as its web server and odd_target.py behind nginx.

nginx's "/video.vdo" answers by query:
    file=NAME     the file NAME (the sample given to Device)
    status=404    404 with a short body
    empty=1       200 with an empty body
    odd=early     a 10 MB answer cut off after 100 kB   (odd_target.py)
    odd=silent    no answer at all                      (odd_target.py)
    anything else 200 "query=" + the query, so that its arrival is proven

FERRULE_WRAPPER, when set, is a command line that ferrule is started through
(qemu-ppc)."""
import collections
import os
import shlex
import sys

from harness import certs
from harness import topology
from harness.coturn import Coturn
from harness.digest import file_sha256
from harness.logged_process import LoggedProcess
from harness.nginx import Nginx
from harness.p2p_client import client_argv, run_client

HERE = os.path.dirname(os.path.abspath(__file__))
Binaries = collections.namedtuple("Binaries", "ferrule devrelay p2pclient")


def binaries_from(paths, root):
    """The three programs given on a command line, or else the ones in root's build/."""
    build = os.path.join(root, "build")
    paths = paths or [os.path.join(build, "app", "ferrule"),
                      os.path.join(build, "tools", "devrelay", "ferrule-devrelay"),
                      os.path.join(build, "tools", "p2pclient", "ferrule-p2pclient")]
    if len(paths) != 3:
        raise ValueError("give all three programs (FERRULE DEVRELAY P2PCLIENT) or none")
    return Binaries(*(os.path.abspath(path) for path in paths))
DOMAIN = "relay.test"
KEY = "dev1"
NAMES = [DOMAIN, "%s.%s" % (KEY, DOMAIN), "stun." + DOMAIN]
DEVICE_PORT, PLAIN_PORT, OUTSIDE_PORT, ODD_PORT = 8443, 8080, 8000, 8090
DEVICE_URL = "http://%s.%s:%d" % (KEY, DOMAIN, OUTSIDE_PORT)
SAMPLE_SIZE = 100 * 1000 * 1000

LOCATIONS = """\
location = /video.vdo {
  default_type text/plain;
  error_page 418 = @odd;
  if ($arg_file) { rewrite ^ /files/$arg_file? last; }
  if ($arg_odd) { return 418; }
  if ($arg_status = "404") { return 404 "no such video\\n"; }
  if ($arg_empty) { return 200 ""; }
  return 200 "query=$args\\n";
}
location /files/ { internal; }
location @odd { proxy_pass http://127.0.0.1:%d; }
""" % ODD_PORT
PROXY = "proxy_buffering off; proxy_read_timeout 300s; proxy_http_version 1.1;"

def make_sample(work, size=SAMPLE_SIZE):
    """A file of random bytes: (path, sha256)."""
    path = os.path.join(work, "sample.bin")
    with open(path, "wb") as f:
        for _ in range(size // (1 << 20)):
            f.write(os.urandom(1 << 20))
        f.write(os.urandom(size % (1 << 20)))
    return path, file_sha256(path)


class Device:
    """One network with the relay side, and ferrule with nginx and the odd
    target on the device."""

    def __init__(self, shape, work, binaries, sample, ferrule_options=(), ferrule_wrapper=(), registered=True):
        """ferrule_options: more of ferrule's options (e.g. log levels);
        ferrule_wrapper: a command prefix for ferrule (e.g. a stepped clock's);
        registered: return only once ferrule has registered with the relay."""
        self.work = work
        self.ferrule_options = list(ferrule_options)
        self.ferrule_wrapper = list(ferrule_wrapper)
        self.registered = registered
        self.binaries = binaries
        self.sample = sample
        self.processes = []
        self.nginx = None
        self.topology = topology.Topology("p2p")
        try:
            self._start(shape)
        except BaseException:
            self.stop()
            raise

    def _logged(self, name, argv, **options):
        process = LoggedProcess(name, argv, self.work, **options)
        self.processes.insert(0, process)  # stopped in reverse order
        return process

    def _start(self, shape):
        work = self.work
        self.net = shape(self.topology, NAMES)
        server, device = self.net.server, self.net.device
        address = self.net.server_addresses[0]
        certs.make_ca(work, "good", "ferrule e2e p2p CA")
        certs.make_server_certificate(work, "good", DOMAIN)
        stun = Coturn(work, self.net.server_addresses, command=server.command).start()
        self.processes.insert(0, stun)
        relay = self._logged("devrelay", server.command(
            self.binaries.devrelay, "-c", os.path.join(work, "good-server.pem"), "-k", os.path.join(work, "good-server.key"),
            "-d", "%s:%d" % (address, DEVICE_PORT), "-p", "%s:%d" % (address, PLAIN_PORT),
            "-o", "%s:%d" % (address, OUTSIDE_PORT), "-P", "5", "-a", "30"))
        relay.wait_for(r"Listening for outside clients on ")
        odd = self._logged("odd", device.command(sys.executable, os.path.join(HERE, "odd_target.py"), str(ODD_PORT)))
        odd.wait_for("listening")
        self.nginx = Nginx(locations=LOCATIONS, http_extra=PROXY, work=os.path.join(work, "nginx"),
                           command=device.command)
        os.makedirs(os.path.join(self.nginx.root, "files"))
        os.symlink(self.sample[0], os.path.join(self.nginx.root, "files", "sample.bin"))
        self.nginx.start()
        registration = os.path.join(work, "ferrule.info")
        with open(registration, "w") as f:
            f.write("DeviceRelayKey = %s\n" % KEY)
        wrapper = self.ferrule_wrapper + shlex.split(os.environ.get("FERRULE_WRAPPER", ""))
        self.ferrule = self._logged("ferrule", device.command(
            *wrapper, self.binaries.ferrule, "-r", "%s:%d" % (DOMAIN, DEVICE_PORT), "-s", "stun." + DOMAIN, "-f", registration,
            "-t", self.nginx.authority(), "-l", "5", "-l", "icesessionlink:6",
            *self.ferrule_options),
            env={"SSL_CERT_FILE": os.path.join(work, "good-ca.pem")})
        if self.registered:
            self.ferrule.wait_for(r"\[revhttp\] Registration succeeded")

    def client_argv(self, query, output, *extra, timeout=20):
        return self.net.client.command(*client_argv(self.binaries.p2pclient, DEVICE_URL, stun=DOMAIN, ice_timeout=timeout,
                                                    extra=["-q", query, "-o", output, *extra], verbose=False))

    def download(self, query, *extra, timeout=20, name="video"):
        """Runs the client to its end; returns (ClientResult, output path)."""
        output = os.path.join(self.work, name)
        result = run_client(self.binaries.p2pclient, DEVICE_URL, command=self.net.client.command, stun=DOMAIN, verbose=False,
                            ice_timeout=timeout, extra=["-q", query, "-o", output, *extra], timeout=timeout + 120)
        return result, output

    def stop(self):
        try:
            for process in self.processes:
                try:
                    process.stop()
                except Exception as error:
                    print("stopping %s: %s" % (process, error), file=sys.stderr)
            if self.nginx is not None:
                self.nginx.stop()
        finally:
            self.topology.remove()
