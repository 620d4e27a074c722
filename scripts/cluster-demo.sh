#!/bin/bash
# Shows tables across machines, on this one: three servers of etcd, a publisher of netdb's network
# prefixes, and two agents that subscribe them, while the leader of the servers is killed. At the end
# all hold the same rows, and so does each server.
#
#   scripts/cluster-demo.sh                      all of it, from installing what is missing on
#   scripts/cluster-demo.sh PROGRAM [FILE...]    with examples/cluster as it was built there; of the
#                                                rows of these files of netdb
#
# Needs Debian 12, Ubuntu 24.04 or newer, and root or sudo if something has to be installed. Servers
# listen on free ports of the loopback interface, keep their data in a temporary folder, and are gone
# at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

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

program=${1:-}
files=("${@:2}")
if [ -z "$program" ]; then
  scripts/install-deps.sh etcd
  scripts/check-cmake.sh
  options=()
  [ -e build/release/CMakeCache.txt ] || options=(-DKORVO_TESTS=OFF)
  cmake --preset release "${options[@]}" -DKORVO_ETCD=ON -DKORVO_EXAMPLES=ON >/dev/null
  cmake --build --preset release --parallel "$(nproc)" --target cluster
  program=build/release/examples/cluster/cluster
fi
if [ ${#files[@]} -eq 0 ]; then
  # The data package is unpacked, not installed. A part of it is written in seconds.
  data=build/demo-data/usr/share/tor
  if [ -e $data/geoip6 ] || scripts/apt-unpack.sh build/demo-data tor-geoipdb; then
    for each in geoip geoip6; do sed 60000q $data/$each >"$folder/$each"; done
    files=("$folder"/geoip{,6})
  else
    echo "The data package tor-geoipdb cannot be had here: a small sample is used instead."
    files=(examples/netdb/sample/geoip{,6})
  fi
fi

# start LOG COMMAND...: in the background, gone with this script.
start() {
  local log=$1
  shift
  setpriv --pdeathsig KILL "$@" >>"$log" 2>&1 &
  started+=($!)
}

# await NAME TEXT: until it stands in the output; false after a minute, or if the publisher ends.
await() {
  local attempt
  for ((attempt = 0; attempt < 600; ++attempt)); do
    ! grep -q "$2" "$folder/$1.out" || return 0
    kill -0 "$publisher" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}

# The number of the member that leads; nothing if none of those that run does.
leader() {
  local i
  for i in 0 1 2; do
    if etcdctl --endpoints="127.0.0.1:${ports[i]}" --command-timeout=1s endpoint status \
      2>/dev/null | grep -q ', true,'; then
      echo $i
      return
    fi
  done
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
# serve NUMBER: starts that server.
serve() {
  local client=http://127.0.0.1:${ports[$1]} peer=http://127.0.0.1:${ports[3 + $1]}
  start "$folder/m$1.log" etcd --name "m$1" --data-dir "$folder/m$1" --snapshot-count 2000 \
    --max-txn-ops 4096 --listen-client-urls "$client" --advertise-client-urls "$client" \
    --listen-peer-urls "$peer" --initial-advertise-peer-urls "$peer" --initial-cluster "$all"
}
await_health() {
  local attempt
  for ((attempt = 0; attempt < 100; ++attempt)); do
    ! etcdctl --endpoints="$members" endpoint health >/dev/null 2>&1 || break
    sleep 0.1
  done
}
export ETCDCTL_API=3
servers=()
for i in 0 1 2; do
  serve $i
  servers+=($!)
done
await_health
address=etcd://$members/demo/netdb
echo "Three servers, one publisher and two copies at $address"

begin=$SECONDS
start "$folder/publisher.out" "$program" publish "$address" 8 "${files[@]}"
publisher=$!
copies=()
for i in 1 2; do
  start "$folder/copy$i.out" "$program" copy "$address"
  copies+=($!)
done
if await publisher 'are written'; then
  await copy1 'copy: current' && await copy2 'copy: current'
  echo "$(sed -n 's/^publisher: \(.* rows are written\)/\1/p' "$folder/publisher.out") and copied" \
    "twice, after $((SECONDS - begin)) s"
  sleep 2
  killed=$(leader)
  end KILL "${servers[killed]}"
  begin=$(date +%s%N)
  echo "Killed the leader, m$killed, while rows change"
  until next=$(leader) && [ -n "$next" ]; do sleep 0.1; done
  echo "m$next leads, $((($(date +%s%N) - begin) / 1000000)) ms later"
  await publisher sha1
  # All is written; the copies have it once nothing comes any more.
  sleep 2
fi
for pid in "${copies[@]}" "$publisher"; do end TERM "$pid"; done
for each in publisher copy1 copy2; do sed "s/^[a-z]*:/  $each:/" "$folder/$each.out"; done

mapfile -t sums < <(sed -n 's/.*; \(.* sha1 .*\)/\1/p' "$folder"/*.out)
if [ ${#sums[@]} -ne 3 ] || [ "${sums[0]}" != "${sums[1]}" ] || [ "${sums[0]}" != "${sums[2]}" ]; then
  echo "The copies differ" >&2
  exit 1
fi
echo "All copies are equal: ${sums[0]}"

# What each server has by itself, the one that was killed, too, as soon as it is back.
serve "$killed"
await_health
hashes() { etcdctl --endpoints="$members" endpoint hashkv | sed 's/.*, //'; }
for ((attempt = 0; attempt < 100; ++attempt)); do
  [ "$(hashes | sort -u | wc -l)" -ne 1 ] || break
  sleep 0.1
done
if [ "$(hashes | sort -u | wc -l)" -ne 1 ]; then
  echo "The servers differ" >&2
  exit 1
fi
echo "All servers have the same: hash $(hashes | head -1)"
