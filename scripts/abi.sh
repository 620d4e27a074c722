#!/bin/bash
# The library's binary interface, as abi/KorvoAPI.{x86_64,i386}.abi describe it.
#
#   scripts/abi.sh --check            reports how the sources' interface differs from them
#   scripts/abi.sh --update           writes them anew: an intended change becomes a visible edit
#   scripts/abi.sh --compare OLD NEW  two libraries or descriptions
set -euo pipefail
cd "$(dirname "$0")/.."

# describe ARCHITECTURE OPTION...: builds the library and writes what abidw says of it to
# build/abi/KorvoAPI.ARCHITECTURE.abi.
describe() {
  local architecture=$1 build=build/abi/$1
  shift
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVO_TESTS=OFF \
    -DKORVO_EXAMPLES=OFF -DKORVO_EVENT_LOOP=OFF "$@" >/dev/null
  cmake --build "$build" --target KorvoAPI >/dev/null
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed \
    --exported-interfaces-only --type-id-style hash --suppressions abi/libabigail.suppr \
    --out-file "build/abi/KorvoAPI.$architecture.abi" "$build/libKorvoAPI.so"
}

describe_both() {
  describe x86_64
  scripts/get-crypto32.sh
  describe i386 -DCMAKE_CXX_FLAGS=-m32 -DOPENSSL_INCLUDE_DIR="$PWD/build/crypto32/usr/include" \
    -DOPENSSL_CRYPTO_LIBRARY="$PWD/build/crypto32/usr/lib/i386-linux-gnu/libcrypto.so"
}

case ${1:-} in
  --check)
    describe_both
    changed=0
    for architecture in x86_64 i386; do
      echo "== $architecture"
      abidiff abi/KorvoAPI.$architecture.abi build/abi/KorvoAPI.$architecture.abi || changed=1
    done
    if [ $changed -ne 0 ]; then
      echo "The binary interface has changed; if that is intended: scripts/abi.sh --update" >&2
      exit 1
    fi
    ;;
  --update)
    describe_both
    mkdir -p abi
    cp build/abi/KorvoAPI.*.abi abi/
    ;;
  --compare) abidiff "$2" "$3" ;;
  *)
    echo "usage: scripts/abi.sh --check | --update | --compare OLD NEW" >&2
    exit 2
    ;;
esac
