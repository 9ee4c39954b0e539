#!/usr/bin/env bash
# Sets everything up, then runs ferrule against a local dev relay: a page of
# the device's web server (nginx) fetched through the relay with curl, and
# the daemon kept running with its log on the terminal until Ctrl-C, which
# stops and removes everything it started. Needs root (network namespace).
# DEMO_SECONDS=N stops it N seconds after the page was fetched.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
exec "${sudo_cmd[@]}" python3 scripts/demo/run_demo.py build/app/ferrule build/tools/devrelay/ferrule-devrelay
