#!/bin/bash
# Unpacks the 32-bit libcrypto and its headers into build/crypto32, for the m32 preset; --force does
# so again. Nothing is installed, and no architecture is added to the machine.
set -euo pipefail
cd "$(dirname "$0")/.."

target=build/crypto32
if [ "${1:-}" != --force ] && [ -e $target/usr/lib/i386-linux-gnu/libcrypto.so ]; then
  exit 0
fi
rm -rf build/crypto32
scripts/apt-unpack.sh --arch i386 $target 'libssl3t64|libssl3' libssl-dev

# The headers of the word size stand in a folder that only a 32-bit compiler searches by itself.
if [ -d $target/usr/include/i386-linux-gnu/openssl ]; then
  cp -r $target/usr/include/i386-linux-gnu/openssl $target/usr/include/
fi
test -e $target/usr/lib/i386-linux-gnu/libcrypto.so
echo "32-bit libcrypto: $target"
