#!/usr/bin/env bash
# Sets everything up and runs the daemon in the foreground with its log on
# the terminal. Stop it with Ctrl-C.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
echo "Starting ferrule (Ctrl-C to stop)"
exec build/app/ferrule -r relay.localhost -s localhost -f "$root/build/devicereg.info" -l 6
