#!/usr/bin/env bash
# Installs every Debian package the project needs (lists in scripts/packages/),
# then configures and builds the release tree in build/. Quiet and quick when
# everything is already there.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

want=$(sed 's/#.*//' scripts/packages/*.txt | xargs)
missing=()
for package in $want; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Repeat builds from fresh clones on the same machine reuse compiled objects.
export CCACHE_BASEDIR="$root"
export CCACHE_NOHASHDIR=1

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRULE_BENCH=ON >/dev/null
ninja -C build --quiet
