#!/usr/bin/env bash
# Prepares the sysroot for the PowerPC cross build: OpenSSL and usrsctp
# cross-built from Debian's own source packages, static and shared, with a
# link to the host's header-only Boost. Built once per pair of source versions
# and cached outside the clone (FERRULE_CROSS_CACHE, default
# /var/cache/ferrule-cross); <cache>/current points at the sysroot in use.
# Silent when the cached sysroot is current.
#
#   scripts/cross/sysroot.sh           make sure the sysroot is current
#   scripts/cross/sysroot.sh --print   ... and print the path of <cache>/current,
#                                      alone on standard output
#   scripts/cross/sysroot.sh --host [--print]
#                                      the same OpenSSL built for this machine
#                                      (<cache>/current-host), so that a static
#                                      daemon built here has the device's shape
#
# FERRULE_CROSS_REFRESH=1 re-reads the source lists now instead of once a day.
set -Eeuo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
triplet=powerpc-linux-gnu
print=0
host=0
# Raised whenever the way the libraries are built changes, so that cached
# sysroots made the old way are rebuilt.
recipe=5
[ "${1:-}" = --host ] && { host=1; shift; }
[ "${1:-}" = --print ] && print=1
# Standard output carries the sysroot's path and nothing else (callers capture
# it): every other line, progress included, goes to standard error.
exec 3>&1 1>&2

cache=${FERRULE_CROSS_CACHE:-}
if [ -z "$cache" ]; then
  cache=/var/cache/ferrule-cross
  if ! mkdir -p "$cache" 2>/dev/null || [ ! -w "$cache" ]; then
    cache=${XDG_CACHE_HOME:-$HOME/.cache}/ferrule-cross
  fi
fi
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)

# Two clones preparing the same sysroot wait for each other.
exec 9>"$cache/.lock"
flock 9

# A private apt configuration with deb-src entries for the Debian archives
# this machine already uses; the machine's own apt configuration is only read.
aptdir=$cache/apt
mkdir -p "$aptdir/lists/partial" "$aptdir/cache/archives/partial"
apt_opts=(-o "Dir::Etc::sourcelist=$aptdir/sources.list" -o Dir::Etc::sourceparts=-
          -o "Dir::State::Lists=$aptdir/lists" -o "Dir::Cache=$aptdir/cache"
          -o APT::Sandbox::User=root -o Debug::NoLocking=1)

write_sources() {
  local codename keyring='' uri suite component machine
  # Reading the machine's configuration through apt takes a second or two:
  # only when it changed.
  machine=$({ cat /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null || true; } | md5sum)
  [ -s "$aptdir/sources.list" ] && [ "$machine" = "$(cat "$aptdir/machine.md5" 2>/dev/null)" ] && return
  codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  [ -n "$codename" ] || { echo "sysroot: cannot tell this machine's Debian release" >&2; exit 1; }
  [ -f /usr/share/keyrings/debian-archive-keyring.gpg ] &&
    keyring=' [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]'
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Identifier: Packages' | sort -u |
    while read -r uri suite component; do
      case $suite in "$codename" | "$codename"-*) echo "deb-src$keyring $uri $suite $component" ;; esac
    done >"$aptdir/sources.list.new"
  [ -s "$aptdir/sources.list.new" ] || { echo "sysroot: no Debian archive configured for $codename" >&2; exit 1; }
  if cmp -s "$aptdir/sources.list.new" "$aptdir/sources.list"; then
    rm "$aptdir/sources.list.new"
  else
    mv "$aptdir/sources.list.new" "$aptdir/sources.list"
    rm -f "$aptdir/updated"
  fi
  echo "$machine" >"$aptdir/machine.md5"
}

refresh_lists() {
  if [ "${FERRULE_CROSS_REFRESH:-0}" = 1 ] || [ ! -f "$aptdir/updated" ] ||
     [ -n "$(find "$aptdir/updated" -mmin +1440)" ]; then
    if apt-get -qq "${apt_opts[@]}" update >"$aptdir/update.log" 2>&1; then
      touch "$aptdir/updated"
    elif [ -f "$aptdir/updated" ]; then
      echo "sysroot: could not refresh the source lists, using the old ones" >&2
    else
      cat "$aptdir/update.log" >&2
      exit 1
    fi
  fi
}

# Source versions known for a package, newest first.
source_versions() {
  local versions=() v i j t
  mapfile -t versions < <(apt-cache "${apt_opts[@]}" showsrc "$1" 2>/dev/null |
                          sed -n "s/^Version: //p" | sort -u)
  for ((i = 0; i < ${#versions[@]}; ++i)); do
    for ((j = i + 1; j < ${#versions[@]}; ++j)); do
      if dpkg --compare-versions "${versions[j]}" gt "${versions[i]}"; then
        t=${versions[i]}; versions[i]=${versions[j]}; versions[j]=$t
      fi
    done
  done
  printf '%s\n' "${versions[@]}"
}

# Fetches (once) the newest source package that can be had; prints its version.
# A mirror may list a version whose files it does not serve yet.
fetch_source() {
  local package=$1 version dir
  while read -r version; do
    [ -n "$version" ] || continue
    dir=$cache/src/${package}_${version//:/_}
    if [ -f "$dir/.complete" ]; then echo "$version"; return; fi
    rm -rf "$dir" && mkdir -p "$dir"
    if (cd "$dir" && apt-get -qq "${apt_opts[@]}" source --download-only "$package=$version") \
         >"$dir/fetch.log" 2>&1; then
      touch "$dir/.complete"
      echo "$version"
      return
    fi
    rm -rf "$dir"
  done < <(source_versions "$package")
  echo "sysroot: no source package for $package could be fetched" >&2
  exit 1
}

extract_source() {  # package version destination
  local dsc
  dsc=$(ls "$cache/src/${1}_${2//:/_}"/*.dsc)
  dpkg-source -q -x "$dsc" "$3" >/dev/null 2>&1
}

# The C libraries are built without unwind tables (320 KB of the static
# daemon): nothing unwinds through them. No C++ exception crosses
# their frames: OpenSSL calls none of the daemon's code back (verification,
# host-name check and BIOs are its own), and usrsctp's callbacks into the
# daemon are noexcept (sctp/sctp_udp_service.h). A debugger or profiler walks
# them by their frame chain, which PowerPC code always keeps.
no_unwind_tables="-fno-asynchronous-unwind-tables -fno-unwind-tables"

# What the daemon's TLS client needs and nothing more: TLS 1.2 and 1.3 with
# the usual server keys (RSA, ECDSA, EdDSA), the AEAD ciphers and ECDHE/DHE,
# chain and host-name verification against the system's trust store, and the
# SHA-1 that HMAC wants. Everything else (other protocols, old or national
# ciphers, engines, loadable modules, certificate services) is left out, which
# takes about a third of the static daemon away. Socket BIOs (asio does the
# I/O), CMAC, the source file names in error records and the secure heap (never
# set up) are left out too. DH stays: Boost 1.74's Asio does not build without
# its declarations (no-dh, no-deprecated), and TLS 1.0 and 1.1 stay so that
# the tests' server in the same library can offer them to be refused. Part of
# the cache key: a sysroot built with other options is not taken for this one.
openssl_options=(
  no-dtls no-ssl3 no-ssl3-method no-srtp no-sctp no-nextprotoneg no-comp no-zlib no-srp no-psk
  no-engine no-dso no-module no-legacy no-async no-ui-console
  no-cms no-ocsp no-ts no-ct no-cmp no-rfc3779
  no-idea no-mdc2 no-rc2 no-rc4 no-rc5 no-bf no-cast no-des no-seed no-camellia no-aria
  no-sm2 no-sm3 no-sm4 no-whirlpool no-md4 no-rmd160 no-blake2 no-siphash no-scrypt
  no-ocb no-gost no-dsa no-ec2m no-capieng no-ssl-trace no-tests
  no-sock no-cmac no-filenames no-secure-memory
  shared -Os -ffunction-sections -fdata-sections $no_unwind_tables
)

build_openssl() {  # source prefix
  local build=$work/openssl-build target=(linux-ppc --cross-compile-prefix=$triplet-)
  [ "$host" = 0 ] || target=("linux-$(uname -m)")
  mkdir -p "$build"
  # The trust store is the system's, as on Debian. Without async jobs
  # libcrypto needs no makecontext, whose static PowerPC build would force a
  # writable and executable PLT into every fully static program. One section
  # per function lets static links keep only what they use (usrsctp gets the
  # same from the toolchain file); the C parts are built for size, the
  # assembler ones (AES, GHASH, ChaCha20, Poly1305, SHA) stay as they are.
  (cd "$build" && "$1/Configure" "${target[@]}" \
     --prefix="$2" --openssldir=/usr/lib/ssl --libdir=lib "${openssl_options[@]}") >>"$log" 2>&1
  nice make -C "$build" -j2 build_libs >>"$log" 2>&1
  make -C "$build" install_dev >>"$log" 2>&1
}

build_usrsctp() {  # source prefix
  local shared
  # -O2, not -Os: the stream path spends its time in the stack, which -Os
  # makes 145 KB smaller but costs about a third more CPU per streamed byte.
  # The daemon gives the stack its packets itself (AF_CONN over the ICE
  # path), so the stack's own IPv4 and IPv6 transports are left out (65 KB);
  # its public header is the same either way.
  for shared in OFF ON; do
    FERRULE_CROSS_SYSROOT=$2 cmake -S "$1" -B "$work/usrsctp-build-$shared" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$triplet.cmake" -DFERRULE_CROSS_STATIC=OFF \
      -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG $no_unwind_tables" \
      -DFERRULE_CROSS_SMALL=OFF \
      -DCMAKE_INSTALL_PREFIX="$2" -DCMAKE_INSTALL_LIBDIR=lib \
      -Dsctp_inet=OFF -Dsctp_inet6=OFF \
      -Dsctp_build_programs=OFF -Dsctp_werror=OFF -Dsctp_build_shared_lib=$shared >>"$log" 2>&1
    nice ninja -C "$work/usrsctp-build-$shared" -j2 >>"$log" 2>&1
    cmake --install "$work/usrsctp-build-$shared" >>"$log" 2>&1
  done
  # Consumers compile with the same switches as against Debian's own package.
  sed -i -e 's|^includedir=.*|includedir=${prefix}/include|' \
         -e 's|^Cflags: .*|Cflags: -I${includedir} -DINET -DINET6|' "$2/lib/pkgconfig/usrsctp.pc"
}

write_sources
refresh_lists
# The versions found stand until the lists are read again.
if [ "$aptdir/resolved" -nt "$aptdir/updated" ]; then
  { read -r openssl_version; read -r usrsctp_version; } <"$aptdir/resolved"
else
  openssl_version=$(fetch_source openssl)
  usrsctp_version=$(fetch_source libusrsctp)
  printf '%s\n' "$openssl_version" "$usrsctp_version" >"$aptdir/resolved"
fi
options_key=$(printf '%s\n' "${openssl_options[@]}" | md5sum | cut -c1-8)
if [ "$host" = 1 ]; then
  # usrsctp stays Debian's here: the sizes that matter are measured on the
  # device build, and the host's static daemon is for memory and speed.
  name=host-openssl-${openssl_version//:/_}-${options_key}_r$recipe
  kind="host-openssl-*"
  link=current-host
  what="OpenSSL $openssl_version for this machine"
  tools=(gcc dpkg-source make perl)
else
  name=openssl-${openssl_version//:/_}-${options_key}_usrsctp-${usrsctp_version//:/_}_r$recipe
  kind="openssl-*_usrsctp-*_r*"
  link=current
  what="OpenSSL $openssl_version and usrsctp $usrsctp_version for $triplet"
  tools=($triplet-gcc qemu-ppc dpkg-source make perl cmake ninja)
fi
sysroot=$cache/$name

if [ ! -f "$sysroot/.complete" ]; then
  echo "sysroot: building $what (a few minutes, once)"
  for tool in "${tools[@]}"; do
    command -v "$tool" >/dev/null || { echo "sysroot: $tool is missing (scripts/setup.sh installs it)" >&2; exit 1; }
  done
  started=$(date +%s)
  work=$cache/work
  log=$cache/build.log
  rm -rf "$work" "$sysroot" && mkdir -p "$work" "$sysroot"
  : >"$log"
  trap 'echo "sysroot: build failed, last lines of $log:" >&2; tail -n 30 "$log" >&2' ERR
  extract_source openssl "$openssl_version" "$work/openssl"
  build_openssl "$work/openssl" "$sysroot"
  if [ "$host" = 0 ]; then
    extract_source libusrsctp "$usrsctp_version" "$work/usrsctp"
    build_usrsctp "$work/usrsctp" "$sysroot"
    ln -s /usr/include/boost "$sysroot/include/boost"
  fi
  trap - ERR
  rm -rf "$work"
  touch "$sysroot/.complete"
  echo "sysroot: ready in $(( $(date +%s) - started )) s: $sysroot"
fi

# Package files name their directory relative to themselves, so that build
# trees configured through <cache>/current stay valid when a new sysroot
# takes its place.
sed -i "s|$sysroot|\${pcfiledir}/../..|g" "$sysroot"/lib/pkgconfig/*.pc
ln -sfn "$name" "$cache/$link.new" && mv -T "$cache/$link.new" "$cache/$link"
# Older sysroots of the same kind and other sources are not used again.
for old in "$cache"/$kind "$cache"/src/*; do
  case $old in "$sysroot" | "$cache/src/openssl_${openssl_version//:/_}" | \
               "$cache/src/libusrsctp_${usrsctp_version//:/_}") ;; *) rm -rf "$old" ;; esac
done
[ "$print" = 0 ] || echo "$cache/$link" >&3
