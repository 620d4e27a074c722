#!/bin/bash
# Installs what is missing, builds the benchmarks and measures the library beside its peers.
#
#   scripts/bench.sh            short: a few minutes, ratios good to about a tenth
#   scripts/bench.sh --full     long enough to quote: about half an hour
#   scripts/bench.sh --publish  the full form, then renews docs/benchmarks/: the results and the
#                               pictures that are drawn from them
#   scripts/bench.sh --once     runs each benchmark once, as a test
#
# BENCH_FILTER=REGEX takes only the benchmarks whose name it matches. Results: a table in
# build/bench/results/table.md, and one .json beside it for each program. The full form also puts
# the demonstration's table beside its peers, in netdb_peers.md, and measures what published tables
# cost over sockets, in table_links.md.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:---short}
case $mode in
  --short) options=(--benchmark_repetitions=3 --benchmark_min_time=0.05) ;;
  --full | --publish)
    options=(--benchmark_repetitions=9 --benchmark_min_time=0.2)
    export KORVO_BENCH_LARGEST=10000000
    ;;
  --once) ;;
  *)
    echo "usage: scripts/bench.sh [--full | --publish | --once]" >&2
    exit 2
    ;;
esac

if [ "$mode" = --publish ] && [ -n "${BENCH_FILTER:-}" ]; then
  echo "bench.sh: what is published is complete: unset BENCH_FILTER" >&2
  exit 2
fi

scripts/install-deps.sh bench
scripts/check-cmake.sh
cmake --preset bench >/dev/null
cmake --build --preset bench --parallel "$(nproc)"

if [ "$mode" = --once ]; then
  exec ctest --preset bench
fi

# Real addresses, where they can be had; without them the benchmarks take the repository's sample.
[ -e build/demo-data/usr/share/tor/geoip6 ] || scripts/apt-unpack.sh build/demo-data tor-geoipdb ||
  echo "The data package tor-geoipdb cannot be had here: a small sample is used instead."

results=build/bench/results
rm -rf $results
mkdir -p $results
for program in build/bench/benchmarks/*_bench; do
  name=$(basename "$program")
  echo "== $name"
  # The repetitions of all contestants take turns, so that a slow moment hits each of them.
  # The results go to standard output, because a confined benchmark cannot open files.
  "$program" "${options[@]}" --benchmark_enable_random_interleaving=true \
    --benchmark_filter="${BENCH_FILTER:-.}" --benchmark_report_aggregates_only=true \
    --benchmark_format=json >"$results/$name.json"
done
python3 scripts/bench-table.py $results/*.json >$results/table.md
if [ "$mode" = --publish ]; then
  # Routes have a file of their own: they are published again when nothing but tables has changed.
  routes=$results/table_index_bench.json
  mapfile -t others < <(find $results -name '*.json' ! -path "$routes" | sort)
  python3 scripts/bench-table.py --json "${others[@]}" >docs/benchmarks/results.json
  python3 scripts/bench-table.py --json "$routes" >docs/benchmarks/routes.json
  python3 scripts/bench-pictures.py
fi
if [ "$mode" = --full ] || [ "$mode" = --publish ]; then
  echo "== netdb_peers"
  data=build/demo-data/usr/share/tor
  [ -e $data/geoip6 ] || data=examples/netdb/sample
  build/bench/benchmarks/netdb_peers $data/geoip $data/geoip6 >$results/netdb_peers.md
  echo "== table_links"
  for run in latency fanout churn; do
    build/bench/benchmarks/table_links $run
  done >$results/table_links.md
fi
cat $results/*.md
