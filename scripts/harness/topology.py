"""Networks of namespaces for the peer-to-peer tests, demo and benchmarks:
namespaces joined by veth pairs and bridges, routers with an nftables NAT,
all torn down again. Needs root.

Addresses come only from 198.18.0.0/15 and fd18::/16, on interfaces made
here. Namespace names carry the creating process's id, so that parallel
runs do not meet. Every namespace gets /etc/netns/NAME/hosts (mounted over
/etc/hosts by `ip netns exec`), the way test names such as KEY.relay.test
resolve without touching the machine's configuration.

    with Topology("ice") as net:
        server = net.namespace("srv", hosts={"198.19.0.1": ["relay.test"]})
        ...
    # gone: processes in the namespaces, the namespaces, their veths,
    # /etc/netns entries; also after an exception or a failed step

The three shapes of the ICE tests are made by flat(), device_behind_nat()
and both_behind_nat(); each returns a Network that names its hosts."""
import os
import subprocess

from harness.netns import Namespace

# Public side of a NAT: Linux masquerade keeps the source port where it can
# and lets in only replies from the address and port a mapping was made
# towards (address- and port-dependent filtering). New connections from the
# public side are dropped before conntrack can pin a mapping for them: an
# early check from the peer must not take the port that the private host's
# own packets would keep.
NAT_RULES = """\
table ip ferrule_nat {{
  chain prerouting_filter {{
    type filter hook prerouting priority -150; policy accept;
    iifname "{public}" ct state new drop
  }}
  chain postrouting {{
    type nat hook postrouting priority srcnat; policy accept;
    oifname "{public}" masquerade
  }}
  chain forward {{
    type filter hook forward priority filter; policy drop;
    iifname "{private}" oifname "{public}" accept
    ct state established,related accept
  }}
}}
"""


def _run(argv, check=True):
    # Own session: a Ctrl-C at the terminal must not kill a step half way.
    result = subprocess.run(argv, capture_output=True, text=True, timeout=30, start_new_session=True)
    if check and result.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(argv), result.returncode, result.stderr.strip()))
    return result


class Topology:
    """Namespaces and links made in order, removed in reverse."""

    def __init__(self, tag):
        self.prefix = "fe-%s-%d-" % (tag, os.getpid())
        self.namespaces = []

    # ---- building

    def namespace(self, name, hosts=None):
        """A namespace with loopback up; hosts: {address: [names]}."""
        namespace = Namespace(self.prefix + name, hosts or {})
        # Recorded before creation, so that a half-made one is removed too.
        self.namespaces.append(namespace)
        namespace.create()
        return namespace

    def run(self, namespace, *argv):
        return _run(namespace.command(*argv))

    def link(self, a, a_name, b, b_name):
        """A veth pair straight between two namespaces, both ends up. It
        disappears with either namespace."""
        _run(["ip", "link", "add", a_name, "netns", a.name, "type", "veth", "peer", "name", b_name, "netns", b.name])
        self.run(a, "ip", "link", "set", a_name, "up")
        self.run(b, "ip", "link", "set", b_name, "up")

    def bridge(self, namespace, name):
        self.run(namespace, "ip", "link", "add", name, "type", "bridge")
        self.run(namespace, "ip", "link", "set", name, "up")

    def attach(self, bridge_namespace, bridge, other, other_name, port_name):
        """other gets interface other_name, plugged into bridge as port_name."""
        self.link(other, other_name, bridge_namespace, port_name)
        self.run(bridge_namespace, "ip", "link", "set", port_name, "master", bridge)

    def address(self, namespace, interface, cidr):
        # No duplicate address detection: an IPv6 address is usable at once
        # instead of after a second or two of "tentative".
        extra = ["nodad"] if ":" in cidr else []
        self.run(namespace, "ip", "addr", "add", cidr, "dev", interface, *extra)

    def default_route(self, namespace, via):
        self.run(namespace, "ip", "-6" if ":" in via else "-4", "route", "add", "default", "via", via)

    def nat(self, namespace, private, public):
        """Makes namespace a router that masquerades what leaves through
        `public` and forwards only private -> public and the answers."""
        self.run(namespace, "sysctl", "-q", "-w", "net.ipv4.ip_forward=1")
        rules = NAT_RULES.format(private=private, public=public)
        result = subprocess.run(namespace.command("nft", "-f", "-"), input=rules, capture_output=True, text=True,
                                timeout=30)
        if result.returncode != 0:
            raise RuntimeError("nft in %s failed: %s" % (namespace.name, result.stderr.strip()))

    # ---- tearing down

    def remove(self):
        """Kills what runs in the namespaces and removes them with their
        veths and /etc/netns entries; safe to call more than once."""
        errors = []
        for namespace in reversed(self.namespaces):
            try:
                namespace.remove()
            except Exception as error:  # go on: the others must go too
                errors.append("%s: %s" % (namespace.name, error))
        self.namespaces = []
        if errors:
            raise RuntimeError("clean-up failed: " + "; ".join(errors))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.remove()
        return False


class Network:
    """What a test needs of a made topology: the namespaces of the relay
    side (dev relay and STUN server), the device and the client, and the
    addresses the relay side listens on."""

    def __init__(self, topology, server, device, client, server_addresses, device_addresses, client_addresses):
        self.topology = topology
        self.server = server
        self.device = device
        self.client = client
        self.server_addresses = server_addresses
        self.device_addresses = device_addresses
        self.client_addresses = client_addresses


def _hosts(server_address, names):
    return {server_address: list(names)}


SERVER_V4 = "198.19.0.1"


def flat(topology, names):
    """One dual-stack LAN: server, device and client on one bridge,
    198.18.0.0/24 and fd18::/64. Host pairs reach each other."""
    server_v4, server_v6 = "198.18.0.1", "fd18::1"
    server = topology.namespace("srv", _hosts(server_v4, names))
    device = topology.namespace("dev", _hosts(server_v4, names))
    client = topology.namespace("cli", _hosts(server_v4, names))
    topology.bridge(server, "br0")
    topology.address(server, "br0", server_v4 + "/24")
    topology.address(server, "br0", server_v6 + "/64")
    for namespace, number, port in ((device, 2, "dev0"), (client, 3, "cli0")):
        topology.attach(server, "br0", namespace, "eth0", port)
        topology.address(namespace, "eth0", "198.18.0.%d/24" % number)
        topology.address(namespace, "eth0", "fd18::%d/64" % number)
    return Network(topology, server, device, client, [server_v4, server_v6], ["198.18.0.2", "fd18::2"],
                   ["198.18.0.3", "fd18::3"])


def _public_lan(topology, names):
    server = topology.namespace("srv", _hosts(SERVER_V4, names))
    topology.bridge(server, "br0")
    topology.address(server, "br0", SERVER_V4 + "/24")
    return server


def _behind_nat(topology, server, name, names, public_number, private_net):
    """A router on the public LAN at 198.19.0.N with a private 198.18.X.0/24
    behind it, and one host at .2 there; returns (router, host)."""
    router = topology.namespace(name + "nat")
    host = topology.namespace(name, _hosts(SERVER_V4, names))
    topology.attach(server, "br0", router, "out0", name + "nat0")
    topology.address(router, "out0", "198.19.0.%d/24" % public_number)
    topology.link(router, "in0", host, "eth0")
    topology.address(router, "in0", "198.18.%d.1/24" % private_net)
    topology.address(host, "eth0", "198.18.%d.2/24" % private_net)
    topology.default_route(host, "198.18.%d.1" % private_net)
    topology.nat(router, "in0", "out0")
    return router, host


def device_behind_nat(topology, names):
    """The device at 198.18.1.2 behind a masquerading router (public
    198.19.0.2); the client on the public LAN at 198.19.0.3. IPv4 only."""
    server = _public_lan(topology, names)
    _, device = _behind_nat(topology, server, "dev", names, 2, 1)
    client = topology.namespace("cli", _hosts(SERVER_V4, names))
    topology.attach(server, "br0", client, "eth0", "cli0")
    topology.address(client, "eth0", "198.19.0.3/24")
    return Network(topology, server, device, client, [SERVER_V4], ["198.18.1.2"], ["198.19.0.3"])


def both_behind_nat(topology, names):
    """The device at 198.18.1.2 behind 198.19.0.2 and the client at
    198.18.2.2 behind 198.19.0.4, each NAT with address- and
    port-dependent filtering. IPv4 only."""
    server = _public_lan(topology, names)
    _, device = _behind_nat(topology, server, "dev", names, 2, 1)
    _, client = _behind_nat(topology, server, "cli", names, 4, 2)
    return Network(topology, server, device, client, [SERVER_V4], ["198.18.1.2"], ["198.18.2.2"])
