#!/usr/bin/env bash
# Sets everything up, then shows both jobs of ferrule against a local dev
# relay: a page of the device's web server (nginx) fetched through the relay
# with curl, then a sample video streamed peer to peer from that web server
# with ferrule-p2pclient, and the daemon kept running with its log on the
# terminal until Ctrl-C, which stops and removes everything it started.
# Needs root (network namespaces). DEMO_SECONDS=N stops it N seconds after
# the video arrived.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
# setup.sh builds every target; the client's needs libnice and usrsctp.
client=build/tools/p2pclient/ferrule-p2pclient
if [ ! -x "$client" ]; then
  echo "demo: $client was not built (it needs libnice-dev and libusrsctp-dev, see scripts/packages/)" >&2
  exit 1
fi
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
exec "${sudo_cmd[@]}" python3 scripts/demo/run_demo.py build/app/ferrule build/tools/devrelay/ferrule-devrelay "$client"
