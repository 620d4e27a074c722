#!/bin/sh
# Says in one line when the CMake at hand is too old, before it fails in many.
set -eu
needed=3.25
present=$(cmake --version | sed -n '1s/.* \([0-9][0-9.]*\).*/\1/p')
oldest=$(printf '%s\n%s\n' "$needed" "$present" | sort -V | head -n 1)
if [ "$oldest" != "$needed" ]; then
  echo "CMake $needed or newer is needed (Debian 12, Ubuntu 24.04); here is $present" >&2
  exit 1
fi
