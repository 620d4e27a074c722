#!/bin/bash
# Unpacks the 32-bit libcrypto and its headers into build/crypto32, for the m32 preset.
#
# Nothing is installed and no architecture is added to the machine: apt works on a state of its own
# under build/, so this needs no root. --force fetches again.
set -euo pipefail
cd "$(dirname "$0")/.."

target=$PWD/build/crypto32
if [ "${1:-}" != --force ] && [ -e "$target/usr/lib/i386-linux-gnu/libcrypto.so" ]; then
  exit 0
fi

work=$PWD/build/apt32
rm -rf build/crypto32 build/apt32
mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/debs" "$target"
: >"$work/status"

apt_options=(
  -qq
  -o APT::Architecture=i386 -o APT::Architectures::=i386
  -o Dir::State="$work" -o Dir::State::lists="$work/lists" -o Dir::State::status="$work/status"
  -o Dir::Cache="$work/cache"
  -o APT::Sandbox::User=)

# One unreachable index of several does not matter as long as the packages can be had.
apt-get "${apt_options[@]}" update >"$work/update.log" 2>&1 || true
runtime=$(apt-cache "${apt_options[@]}" depends libssl-dev 2>>"$work/update.log" |
  sed -n 's/.*Depends: \(libssl3[a-z0-9]*\).*/\1/p' | head -n 1)
if [ -z "$runtime" ]; then
  cat "$work/update.log" >&2
  echo "get-crypto32.sh: the 32-bit package libssl-dev cannot be had here" >&2
  exit 69
fi
(cd "$work/debs" && apt-get "${apt_options[@]}" download "$runtime" libssl-dev)
for package in "$work"/debs/*.deb; do
  dpkg-deb -x "$package" "$target"
done

# The headers of the word size stand in a folder that only a 32-bit compiler searches by itself.
if [ -d "$target/usr/include/i386-linux-gnu/openssl" ]; then
  cp -r "$target/usr/include/i386-linux-gnu/openssl" "$target/usr/include/"
fi
test -e "$target/usr/lib/i386-linux-gnu/libcrypto.so"
rm -rf build/apt32
echo "32-bit libcrypto: build/crypto32"
