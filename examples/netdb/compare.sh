#!/bin/bash
# Measures loading in units beside loading in plain loops, by turns in one run: medians and ratio.
#
#   examples/netdb/compare.sh [RUNS [NETDB]]    nine runs of each; NETDB is the program that the
#                                               demo has built, or another
#
# netdb finds its data by itself, as without --input.
set -euo pipefail
cd "$(dirname "$0")/../.."

runs=${1:-9}
netdb=${2:-build/release/examples/netdb/netdb}

load_time() { "$netdb" --quiet "$@" load | awk '/^load time/ { print $3 }'; }
median() { sort -n | awk '{ time[NR] = $1 } END { print time[int((NR + 1) / 2)] }'; }

units=()
loops=()
for ((run = 0; run < runs; ++run)); do
  units+=("$(load_time)")
  loops+=("$(load_time --blocking)")
done
in_units=$(printf '%s\n' "${units[@]}" | median)
in_loops=$(printf '%s\n' "${loops[@]}" | median)
awk -v units="$in_units" -v loops="$in_loops" 'BEGIN {
  printf "units %.2f s, plain loops %.2f s, ratio %.2f\n", units, loops, units / loops }'
