#!/bin/bash
# Measures loading in units beside loading in plain loops, by turns in one run: medians and ratio.
#
#   examples/netdb/compare.sh [RUNS [NETDB]]    nine runs of each; NETDB is the program that
#                                               scripts/demo.sh has built, or another
#
# The data is what the demo unpacked, or lies in the folder that NETDB_FULL_DATA names.
set -euo pipefail
cd "$(dirname "$0")/../.."

runs=${1:-9}
netdb=${2:-build/release/examples/netdb/netdb}
data=${NETDB_FULL_DATA:-build/demo-data/usr/share/tor}
if [ ! -x "$netdb" ] || [ ! -e "$data/geoip6" ]; then
  echo "compare.sh: there is no $netdb or no $data/geoip6; scripts/demo.sh makes both" >&2
  exit 1
fi

load_time() {
  "$netdb" --quiet --input "$data/geoip" "$data/geoip6" "$@" load | awk '/^load time/ { print $3 }'
}
median() { printf '%s\n' "$@" | sort -n | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }'; }

units=()
loops=()
for ((run = 0; run < runs; ++run)); do
  units+=("$(load_time)")
  loops+=("$(load_time --blocking)")
done
awk -v units="$(median "${units[@]}")" -v loops="$(median "${loops[@]}")" 'BEGIN {
  printf "units %.2f s, plain loops %.2f s, ratio %.2f\n", units, loops, units / loops }'
