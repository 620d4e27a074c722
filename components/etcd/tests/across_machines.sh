#!/bin/bash
# Runs the commands of docs/across-machines.md, in their order, in a temporary folder and on ports
# that are free:
#
#   across_machines.sh PAGE PROGRAM     PROGRAM: the example cluster, which publishes something
set -euo pipefail
page=$(realpath "$1")
program=$(realpath "$2")

folder=$(mktemp -d /tmp/korvo_page_XXXXXX)
clean_up() {
  local pid
  for pid in $(jobs -p); do kill -9 "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$folder"
}
trap clean_up EXIT
cd "$folder"

# Servers end with this script, however that ends.
etcd() { exec setpriv --pdeathsig KILL etcd "$@"; }

mapfile -t ports < <(python3 -c '
import socket
held = [socket.create_server(("127.0.0.1", 0)) for _ in range(6)]
print("\n".join(str(s.getsockname()[1]) for s in held))')
mapfile -t blocks < <(grep -n '^```sh$' "$page" | cut -d: -f1)
[ ${#blocks[@]} -ge 7 ] || { echo "the page shows ${#blocks[@]} blocks of commands" >&2; exit 1; }
for line in "${blocks[@]}"; do
  tail -n +$((line + 1)) "$page" | sed '/^```$/,$d' >block
  for i in 0 1 2; do
    sed -i "s/127\.0\.0\.1:$((i + 1))2379/127.0.0.1:${ports[i]}/
      s/127\.0\.0\.1:$((i + 1))2380/127.0.0.1:${ports[3 + i]}/" block
  done
  echo "--- line $line"
  cat block
  # shellcheck disable=SC1091
  source ./block
  if [ "$line" = "${blocks[0]}" ]; then
    # Something to look at: it is done when the mark is there.
    printf '1,2,AA\n16777216,16777471,AU\n' >ranges
    setpriv --pdeathsig KILL "$program" publish \
      "etcd://$ETCDCTL_ENDPOINTS/net/portAgent" 1 ranges >publisher.out 2>&1 &
    publisher=$!
    for ((attempt = 0; attempt < 100; ++attempt)); do
      ! grep -q sha1 publisher.out || break
      sleep 0.1
    done
    cat publisher.out
  elif grep -q 'snapshot restore' block; then
    # It lets go of the name, if it is heard.
    sleep 1
    kill -TERM "$publisher"
    wait "$publisher" || :
  fi
done

# With the page's users, certificates and settings, in the restored cluster.
echo "--- with the settings of the page"
started=()
for role in 'publish' 'copy'; do
  words=("$role" "etcd://$ETCDCTL_ENDPOINTS/net/portAgent")
  [ $role = copy ] || words+=(1 ranges)
  setpriv --pdeathsig KILL "$program" "${words[@]}" >$role.out 2>&1 &
  started+=($!)
done
for ((attempt = 0; attempt < 250; ++attempt)); do
  ! grep -q sha1 publish.out || break
  sleep 0.1
done
sleep 1 # for what is on its way to the copy
kill -TERM "${started[@]}"
wait "${started[@]}"
cat publish.out copy.out
grep -q '; 3 rows, sha1' copy.out
[ "$(grep -o 'sha1 .*' copy.out)" = "$(grep -o 'sha1 .*' publish.out)" ]
