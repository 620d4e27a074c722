#!/bin/bash
# Shows tables across machines, on this one: three servers of etcd, a publisher, and two copies, while
# the leader of the servers is killed. At the end all hold the same rows.
#
#   scripts/cluster-demo.sh            all of it, from installing what is missing on
#   scripts/cluster-demo.sh PROGRAM    with examples/cluster as it was built there
#
# Needs Debian 12, Ubuntu 24.04 or newer, and root or sudo if something has to be installed. Servers
# listen on free ports of the loopback interface, keep their data in a temporary folder, and are gone
# at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

program=${1:-}
if [ -z "$program" ]; then
  scripts/install-deps.sh etcd
  scripts/check-cmake.sh
  options=()
  [ -e build/release/CMakeCache.txt ] || options=(-DKORVO_TESTS=OFF)
  cmake --preset release "${options[@]}" -DKORVO_ETCD=ON -DKORVO_EXAMPLES=ON >/dev/null
  cmake --build --preset release --parallel "$(nproc)" --target cluster
  program=build/release/examples/cluster/cluster
fi

folder=$(mktemp -d /tmp/korvo_cluster_XXXXXX)
started=()
# end SIGNAL PID: and waits for it.
end() {
  kill -"$1" "$2" 2>/dev/null || return 0
  wait "$2" 2>/dev/null || true
}
clean_up() {
  local pid
  for pid in "${started[@]}"; do end KILL "$pid"; done
  rm -rf "$folder"
}
trap clean_up EXIT

# start LOG COMMAND...: in the background, gone with this script.
start() {
  local log=$1
  shift
  setpriv --pdeathsig KILL "$@" >>"$log" 2>&1 &
  started+=($!)
}

mapfile -t ports < <(python3 -c '
import socket
held = [socket.create_server(("127.0.0.1", 0)) for _ in range(6)]
print("\n".join(str(s.getsockname()[1]) for s in held))')
all=
members=
for i in 0 1 2; do
  all+="${all:+,}m$i=http://127.0.0.1:${ports[3 + i]}"
  members+="${members:+,}127.0.0.1:${ports[i]}"
done
servers=()
for i in 0 1 2; do
  client=http://127.0.0.1:${ports[i]} peer=http://127.0.0.1:${ports[3 + i]}
  start "$folder/m$i.log" etcd --name m$i --data-dir "$folder/m$i" --snapshot-count 2000 \
    --listen-client-urls "$client" --advertise-client-urls "$client" \
    --listen-peer-urls "$peer" --initial-advertise-peer-urls "$peer" --initial-cluster "$all"
  servers+=($!)
done
export ETCDCTL_API=3
for ((attempt = 0; attempt < 100; ++attempt)); do
  ! etcdctl --endpoints="$members" endpoint health >/dev/null 2>&1 || break
  sleep 0.1
done
echo "Three servers: $members"

address=etcd://$members/demo/publisher
start "$folder/publisher.out" "$program" publish "$address" examples/netdb/sample/geoip 10
publisher=$!
copies=()
for i in 1 2; do
  start "$folder/copy$i.out" "$program" copy "$address"
  copies+=($!)
done

sleep 4
for i in 0 1 2; do
  if etcdctl --endpoints="127.0.0.1:${ports[i]}" endpoint status | grep -q ', true,'; then
    end KILL "${servers[i]}"
    echo "Killed the leader, m$i, while rows are written"
    break
  fi
done

for ((attempt = 0; attempt < 300; ++attempt)); do
  ! grep -q 'sha1' "$folder/publisher.out" || break
  kill -0 "$publisher" 2>/dev/null || break
  sleep 0.1
done
sleep 1 # for what is on its way to the copies
for pid in "${copies[@]}" "$publisher"; do end TERM "$pid"; done
tail -n +1 "$folder"/*.out | sed "s,$folder/,,"

mapfile -t sums < <(sed -n 's/.*; \(.* sha1 .*\)/\1/p' "$folder"/*.out)
echo
if [ ${#sums[@]} -ne 3 ] || [ "${sums[0]}" != "${sums[1]}" ] || [ "${sums[0]}" != "${sums[2]}" ]; then
  echo "The copies differ" >&2
  exit 1
fi
echo "All copies are equal: ${sums[0]}"
