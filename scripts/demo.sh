#!/bin/bash
# Installs what is missing, builds netdb and shows it at work: a server of the world's network
# prefixes, subscribers that look addresses up and are told what changes, a file that changes, and a
# server that is killed and comes back. Needs Debian 12, Ubuntu 24.04 or newer, and root or sudo if
# something has to be installed.
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

# The files are copies, because one of them is changed, beside the server's socket. All of it goes,
# and every process that was started, whatever happens.
work=$(mktemp -d)
input=(--input "$work/geoip" "$work/geoip6")
address=unix:$work/netdb
started=()
clean_up() {
  local process
  for process in "${started[@]}"; do kill -9 "$process" 2>/dev/null || :; done
  wait 2>/dev/null || :
  rm -f "$work"/{geoip,geoip6,new,netdb,serve.out,first.out,second.out}
  rmdir "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
cp "$data/geoip" "$data/geoip6" "$work"

show() {
  echo
  echo "\$ netdb $*"
  "$netdb" "$@" --server "$address"
}

# Starts netdb in the background with its output in a file: start NAME ARGUMENTS...
start() {
  local out=$work/$1.out
  shift
  "$netdb" "$@" --server "$address" >"$out" 2>&1 &
  last=$!
  started+=("$last")
  disown "$last"
}

# Waits until a line that begins so stands so many times in the output: await NAME LINE TIMES
await() {
  local tries
  for ((tries = 0; tries < 600; ++tries)); do
    [ "$(grep -c "^$2" "$work/$1.out")" -lt "$3" ] || return 0
    sleep 0.1
  done
  echo "demo.sh: no \"$2\" comes from $1:" >&2
  cat "$work/$1.out" >&2
  exit 1
}

# Shows what has come to an output since it was shown last.
declare -A shown
tell() {
  local lines
  lines=$(wc -l <"$work/$1.out")
  sed -n "$((${shown[$1]:-0} + 1)),${lines}s/^/  $1: /p" "$work/$1.out"
  shown[$1]=$lines
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

echo
echo "\$ netdb serve ${input[*]} &"
start serve serve "${input[@]}"
server=$last
await serve serving 1
tell serve

show load
show lookup "${addresses[@]:0:4}"
show lookup --json "${addresses[4]}"
show stats --limit 10

echo
echo "\$ netdb watch &    twice: first, second"
start first watch
start second watch
for name in first second; do
  await $name current 1
  tell $name
done

echo
echo "One range of geoip goes, one gets another country, one is new:"
awk -F, -v OFS=, '/^[0-9]/ { if (++n == 2) $0 = "# " $0; if (n == 4) $3 = "ZZ" } { print }
  END { print "4294967040,4294967295,ZZ" }' "$work/geoip" >"$work/new"
diff "$work/geoip" "$work/new" | grep '^[<>]' || :
mv "$work/new" "$work/geoip"
await serve "geoip changed" 1
tell serve
for name in first second; do
  await $name added 1
  tell $name
done

echo
echo "\$ kill -9 $server"
kill -9 "$server"
declare -A currents
for name in first second; do
  await $name "stale: the other end" 1
  currents[$name]=$(grep -c "^current" "$work/$name.out")
  tell $name
done

echo
echo "\$ netdb serve ${input[*]} &"
start serve serve "${input[@]}"
server=$last
shown[serve]=0
await serve serving 1
tell serve
for name in first second; do
  await $name current "$((${currents[$name]} + 1))"
  tell $name
done
echo "No row has changed meanwhile, and none was told."

echo
echo "\$ kill $server"
kill "$server"
await serve stopped 1
tell serve
