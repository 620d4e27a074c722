#!/bin/bash
# Installs what is missing, builds netdb and shows it at work: the world's network prefixes, sent as
# rows from one process to another, and looked up. Needs Debian 12, Ubuntu 24.04 or newer, and root
# or sudo if something has to be installed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh demo
scripts/check-cmake.sh

# A build folder that has tests keeps them.
options=()
[ -e build/release/CMakeCache.txt ] || options=(-DKORVO_TESTS=OFF)
cmake --preset release "${options[@]}" >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target netdb
netdb=build/release/examples/netdb/netdb

# The data package is unpacked, not installed.
data=build/demo-data/usr/share/tor
if [ ! -e $data/geoip6 ] && ! scripts/apt-unpack.sh build/demo-data tor-geoipdb; then
  data=examples/netdb/sample
  echo "The data package tor-geoipdb cannot be had here: the small sample in $data is used instead."
fi
input=(--input "$data/geoip" "$data/geoip6")

show() {
  echo
  echo "\$ netdb $*"
  "$netdb" "$@" "${input[@]}"
}

# Addresses that the data, whichever it is, has ranges for: the first ones of a few ranges.
ipv4_addresses() {
  awk -F, '/^[0-9]/ { first[n++] = $1 }
    END { for (i = 1; i <= 3; ++i) {
      a = first[int(n * i / 4)] + 1
      printf "%d.%d.%d.%d\n", int(a / 16777216) % 256, int(a / 65536) % 256, int(a / 256) % 256, a % 256
    } }' "$data/geoip"
}
ipv6_addresses() {
  awk -F, '/^[0-9a-f]/ { first[n++] = $1 } END { print first[int(n / 3)]; print first[int(n / 2)] }' \
    "$data/geoip6"
}
mapfile -t addresses < <(ipv4_addresses && ipv6_addresses)

show load
show lookup --quiet "${addresses[@]:0:4}"
show lookup --quiet --json "${addresses[4]}"
show stats --quiet --limit 10
