#!/bin/bash
# Downloads Debian packages and unpacks them into a folder. Nothing is installed, and no root needed.
#
#   scripts/apt-unpack.sh [--arch ARCHITECTURE] TARGET PACKAGE...
#
# PACKAGE may name alternatives: "libssl3t64|libssl3" takes the first that can be had. Exits with 69
# when a package cannot be had.
set -euo pipefail
cd "$(dirname "$0")/.."

options=(-qq -o APT::Sandbox::User=)
own_state=
if [ "${1:-}" = --arch ]; then
  options+=(-o APT::Architecture="$2" -o APT::Architectures::="$2")
  own_state=wanted
  shift 2
fi
target=$1
shift

mkdir -p build
work=$(mktemp -d "$PWD/build/apt.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debs"

# Package lists of our own, so that the machine's are left alone: neither has to be up to date or
# know the architecture.
use_own_state() {
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial"
  : >"$work/status"
  options+=(-o Dir::State="$work" -o Dir::State::lists="$work/lists"
    -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache")
  own_state=ready
  # One unreachable index of several does not matter as long as the packages can be had.
  apt-get "${options[@]}" update >>"$work/log" 2>&1 || true
}

download() {
  local package
  for package in ${1//|/ }; do
    if (cd "$work/debs" && apt-get "${options[@]}" download "$package") 2>>"$work/log"; then
      return 0
    fi
  done
  return 1
}

[ "$own_state" != wanted ] || use_own_state
for package in "$@"; do
  if download "$package"; then continue; fi
  if [ "$own_state" != ready ]; then
    use_own_state
    if download "$package"; then continue; fi
  fi
  cat "$work/log" >&2
  echo "apt-unpack.sh: cannot be had: $package" >&2
  exit 69
done

mkdir -p "$target"
for deb in "$work"/debs/*.deb; do
  dpkg-deb -x "$deb" "$target"
done
