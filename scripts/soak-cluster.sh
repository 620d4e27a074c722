#!/bin/bash
# Has a publisher of tables and its subscribers run on three servers of etcd under load for a while,
# and kills, stops, cuts off, compacts, replaces and restores at random. Fails if a subscriber sees
# what the publisher never had, or if in the end one of them or of the servers has other rows.
#
#   scripts/soak-cluster.sh [SECONDS [SEED [PROGRAM]]]    300 seconds, a seed by the clock, etcd_soak
#                                                         built from here
#
# As root each server, publisher and subscriber has a network of its own, in namespaces that nobody
# else sees and that are gone with this script, as all its processes are. Elsewhere it says that it
# has none, and stops whom it would cut off.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
seed=${2:-$(date +%s)}
program=${3:-}
if [ -z "$program" ]; then
  scripts/install-deps.sh test
  cmake --preset release -DKORVO_ETCD=ON >/dev/null
  cmake --build --preset release --parallel "$(nproc)" --target etcd_soak >/dev/null
  program=build/release/components/etcd/tests/etcd_soak
fi

spaces=(unshare --net --mount --pid --mount-proc --fork --kill-child)
mounted='mkdir -p /run/netns && mount -t tmpfs none /run/netns'
if "${spaces[@]}" bash -c "$mounted && ip link add name kb type bridge && unshare --time true" \
  2>/dev/null; then
  exec "${spaces[@]}" bash -c "$mounted && exec \"\$@\"" soak \
    scripts/soak-cluster.py "$program" "$seconds" "$seed" networks
fi
exec scripts/soak-cluster.py "$program" "$seconds" "$seed"
