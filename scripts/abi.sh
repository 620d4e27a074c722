#!/bin/bash
# The libraries' binary interfaces, as abi/LIBRARY.{x86_64,i386}.abi describe them.
#
#   scripts/abi.sh --check            reports how the sources' interface differs from them
#   scripts/abi.sh --update           writes them anew: an intended change becomes a visible edit
#   scripts/abi.sh --compare OLD NEW  two libraries or descriptions
set -euo pipefail
cd "$(dirname "$0")/.."

# libraries_of ARCHITECTURE: gRPC, which tables across machines need, is not among the 32-bit
# libraries that are fetched.
libraries_of() {
  libraries=(KorvoAPI KorvoEventLoop KorvoTables)
  [ "$1" = i386 ] || libraries+=(KorvoEtcdTables)
}

# describe ARCHITECTURE OPTION...: builds the libraries and writes what abidw says of each to
# build/abi/LIBRARY.ARCHITECTURE.abi.
describe() {
  local architecture=$1 build=build/abi/$1
  libraries_of "$1"
  shift
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVO_TESTS=OFF \
    -DKORVO_EXAMPLES=OFF -DKORVO_EVENT_LOOP=ON -DKORVO_TABLES=ON "$@" >/dev/null
  cmake --build "$build" --target "${libraries[@]}" >/dev/null
  local library
  for library in "${libraries[@]}"; do
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed \
      --exported-interfaces-only --type-id-style hash --suppressions abi/libabigail.suppr \
      --out-file "build/abi/$library.$architecture.abi" "$build/lib$library.so"
  done
}

describe_both() {
  describe x86_64 -DKORVO_ETCD=ON
  scripts/get-libs32.sh
  local libs32=$PWD/build/libs32
  PKG_CONFIG_SYSROOT_DIR=$libs32 PKG_CONFIG_LIBDIR=$libs32/usr/lib/i386-linux-gnu/pkgconfig \
    describe i386 -DCMAKE_CXX_FLAGS=-m32 -DOPENSSL_INCLUDE_DIR="$libs32/usr/include" \
    -DOPENSSL_CRYPTO_LIBRARY="$libs32/usr/lib/i386-linux-gnu/libcrypto.so"
}

case ${1:-} in
  --check)
    describe_both
    changed=0
    for architecture in x86_64 i386; do
      libraries_of "$architecture"
      for library in "${libraries[@]}"; do
        echo "== $library, $architecture"
        abidiff "abi/$library.$architecture.abi" "build/abi/$library.$architecture.abi" || changed=1
      done
    done
    if [ $changed -ne 0 ]; then
      echo "The binary interface has changed; if that is intended: scripts/abi.sh --update" >&2
      exit 1
    fi
    ;;
  --update)
    describe_both
    mkdir -p abi
    cp build/abi/*.abi abi/
    ;;
  --compare) abidiff "$2" "$3" ;;
  *)
    echo "usage: scripts/abi.sh --check | --update | --compare OLD NEW" >&2
    exit 2
    ;;
esac
