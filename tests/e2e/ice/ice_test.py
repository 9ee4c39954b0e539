#!/usr/bin/env python3
"""ferrule's peer-to-peer sessions end to end, against libnice: the client
(ferrule-p2pclient) posts its candidates to "/sg/sessions" through
ferrule-devrelay, ferrule answers with its own and runs the checks as the
controlling side, libnice as the controlled one.

Each case builds its own network of namespaces (scripts/harness/topology.py):
    flat             one dual-stack LAN; host pairs win
    device_nat       ferrule behind a masquerading router, the client public
    both_nat         each behind its own NAT with address- and port-dependent
                     filtering; only hole-punched reflexive pairs work
The relay side (dev relay and coturn as the STUN server) sits on the public
LAN, as harness.video_device sets it up. Every case checks ferrule's
candidate lines, "ICE session established", and that libnice selected the
pair ferrule nominated, seen through the NATs. Refusals and silent peers are
the unit tests' and ferrule-p2pclient's cases.

    ice_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]

Needs root. Namespaces, their /etc/netns entries and every process are gone
afterwards, also when a case fails."""
import os
import re
import shutil
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness import topology  # noqa: E402
from harness.p2p_client import run_client  # noqa: E402
from harness.video_device import DEVICE_URL, DOMAIN, Binaries, Device  # noqa: E402

BINARIES = None

# One address with port as ferrule and the client print it: a.b.c.d:p or [v6]:p
ADDRESS = r"(?:\d+\.\d+\.\d+\.\d+|\[[0-9a-f:]+\]):\d+"


class IceSessions(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="ferrule-ice-")
        self.device = None

    def tearDown(self):
        if self.device is not None:
            self.device.stop()
        if os.environ.get("FERRULE_KEEP_WORK"):
            print("work directory kept: %s" % self.work)
        else:
            shutil.rmtree(self.work, ignore_errors=True)

    def start(self, shape):
        """The network, the relay side and ferrule (its web server unused)."""
        sample = os.path.join(self.work, "sample.bin")
        open(sample, "w").close()
        self.device = Device(shape, self.work, BINARIES, (sample, ""), ferrule_options=("-l", "6"))
        return self.device

    def connect(self):
        """Runs the client to its end; returns its ClientResult."""
        return run_client(BINARIES.p2pclient, DEVICE_URL, command=self.device.net.client.command, stun=DOMAIN,
                          extra=("--send", "3", "--hold", "1"))

    # ---- what ferrule logged

    def ferrule_pair(self):
        """(local, remote) of "ICE session established: %s <-> %s"."""
        line = self.device.ferrule.wait_for(r"ICE session established: ", timeout=30)[0]
        match = re.search(r"ICE session established: (%s) <-> (%s)$" % (ADDRESS, ADDRESS), line)
        self.assertIsNotNone(match, line)
        return match.group(1), match.group(2)

    def local_candidates(self):
        return [re.search(r"Adding local candidate (\S+) with preference \d+$", line).group(1)
                for line in self.device.ferrule.matching(r"Adding local candidate \S+ with preference \d+$")]

    def reflexive_candidates(self):
        """{server-reflexive address: its base}"""
        found = {}
        for line in self.device.ferrule.matching(r"Adding server reflexive candidate \S+ with base \S+$"):
            match = re.search(r"Adding server reflexive candidate (\S+) with base (\S+)$", line)
            found[match.group(1)] = match.group(2)
        return found

    def public_faces(self, local):
        """Where packets from ferrule's local address appear to come from:
        itself, the server-reflexive candidates based on it, and the mapped
        addresses of its successful checks."""
        faces = {local} | {address for address, base in self.reflexive_candidates().items() if base == local}
        for line in self.device.ferrule.matching(r"Check succeeded: \[%s, " % re.escape(local)):
            faces.add(line.rsplit("mapped address is ", 1)[1].strip())
        return faces

    def assert_same_pair(self, client):
        """libnice selected the pair ferrule nominated: ferrule's remote is
        where the client's packets come from, the client's remote is a
        public face of ferrule's local address."""
        self.assertEqual(client.status, 0, client)
        local, remote = self.ferrule_pair()
        self.device.ferrule.wait_for(r"Sending final check for nominated pair \[%s, %s\]"
                                      % (re.escape(local), re.escape(remote)), timeout=1)
        self.assertEqual(remote, client.pair["local"], client)
        self.assertIn(client.pair["remote"], self.public_faces(local), client)
        return local, remote

    def address_part(self, address):
        return address.rsplit(":", 1)[0].strip("[]")

    def base_of(self, local):
        """The host address under ferrule's local candidate."""
        return self.reflexive_candidates().get(local, local)

    # ---- the three networks

    def test_flat_dual_stack_host_pair(self):
        session = self.start(topology.flat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        self.assertEqual((client.pair["local-type"], client.pair["remote-type"]), ("host", "host"), client)
        self.assertIn(self.address_part(local), session.net.device_addresses)
        self.assertIn(self.address_part(remote), session.net.client_addresses)
        # Both families gathered, nothing else (no loopback, no link-local).
        gathered = sorted({self.address_part(candidate) for candidate in self.local_candidates()})
        self.assertEqual(gathered, sorted(session.net.device_addresses))
        self.assertEqual(client.datagrams["sent"], 3, client)
        session.ferrule.wait_for(r"Finished gathering candidates", timeout=1)

    def test_device_behind_nat(self):
        self.start(topology.device_behind_nat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        reflexive = self.reflexive_candidates()
        self.assertTrue(any(self.address_part(address) == "198.19.0.2" and self.address_part(base) == "198.18.1.2"
                            for address, base in reflexive.items()), reflexive)
        # ferrule names the pair by its public face, which is what libnice saw.
        self.assertEqual(self.address_part(local), "198.19.0.2")
        self.assertEqual(self.address_part(self.base_of(local)), "198.18.1.2")
        self.assertEqual(remote, "198.19.0.3:" + client.pair["local"].rsplit(":", 1)[1])
        self.assertEqual(client.pair["local-type"], "host", client)
        self.assertIn(client.pair["remote-type"], ("srflx", "prflx"), client)

    def test_both_behind_nat_hole_punched(self):
        self.start(topology.both_behind_nat)
        client = self.connect()
        local, remote = self.assert_same_pair(client)
        self.assertEqual(self.address_part(local), "198.19.0.2")  # the device's NAT
        self.assertEqual(self.address_part(self.base_of(local)), "198.18.1.2")
        self.assertEqual(self.address_part(remote), "198.19.0.4")  # the client's NAT
        self.assertIn(client.pair["local-type"], ("srflx", "prflx"), client)
        self.assertIn(client.pair["remote-type"], ("srflx", "prflx"), client)


def main():
    global BINARIES
    if len(sys.argv) < 4:
        sys.exit("usage: ice_test.py FERRULE DEVRELAY P2PCLIENT [unittest arguments]")
    BINARIES = Binaries(*(os.path.abspath(path) for path in sys.argv[1:4]))
    unittest.main(argv=[sys.argv[0]] + sys.argv[4:], verbosity=2)


if __name__ == "__main__":
    main()
