#!/bin/bash
# Has a publisher of tables and its subscribers run under load for a while, as processes of 64 and of
# 32 bits and of two layouts, and kills, stops and continues them at random; as root also with peers
# of another user. Fails if a subscriber sees what the publisher never had.
#
#   scripts/soak-tables.sh [SECONDS [SEED]]     300 seconds, a seed by the clock
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
seed=${2:-$(date +%s)}
scripts/install-deps.sh test g++-multilib
scripts/get-libs32.sh

programs=()
for preset in release m32; do
  cmake --preset $preset >/dev/null
  cmake --build --preset $preset --parallel "$(nproc)" --target table_soak >/dev/null
  programs+=("build/$preset/components/tables/tests/table_soak")
done
echo "$seconds seconds, seed $seed"
"${programs[0]}" drive "$seconds" "$seed" "${programs[@]}"
