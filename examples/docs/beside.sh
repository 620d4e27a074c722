#!/bin/bash
# Runs a publisher and a subscriber beside each other, in an empty folder, until the subscriber has
# printed what it should, and ends both as a terminal would:
#
#   beside.sh PUBLISHER SUBSCRIBER EXPECTED
set -euo pipefail

work=$(mktemp -d)
pids=()
finish() {
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
  rm -r "$work"
}
trap finish EXIT
cd "$work"

"$2" >printed & # the first one waits for the other
pids+=($!)
"$1" &
pids+=($!)
for ((i = 0; i < 600; ++i)); do
  ! cmp -s "$3" printed || break
  sleep 0.1
done
kill -INT "${pids[@]}"
for pid in "${pids[@]}"; do wait "$pid"; done
pids=()
diff "$3" printed
