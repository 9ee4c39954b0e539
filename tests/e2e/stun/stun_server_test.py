#!/usr/bin/env python3
"""The STUN agent against a real server: coturn (Debian package) on a free
loopback port, then the e2e_stun program with the port in FERRULE_STUN_PORT.
Skipped, and reported as such, when turnserver or setpriv is missing."""
import os
import shutil
import socket
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "scripts"))
from harness.coturn import Coturn  # noqa: E402


def main(program):
    for tool in ("turnserver", "setpriv"):
        if not shutil.which(tool):
            print("[  SKIPPED ] %s is not installed (see scripts/packages)" % tool)
            return 0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    work = tempfile.mkdtemp(prefix="stun-e2e-")
    try:
        with Coturn(work, ["127.0.0.1"], port=port) as server:
            result = subprocess.run([program], env=dict(os.environ, FERRULE_STUN_PORT=str(port)), timeout=60)
            if result.returncode != 0:
                print("---- coturn log ----\n" + "\n".join(server.process.lines[-50:]))
            return result.returncode
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
