#!/bin/bash
# Reformats the sources, or with --check only tells which ones need it.
#
#   scripts/format.sh [--check] [FILE...]
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(-i)
if [ "${1:-}" = --check ]; then
  mode=(--dry-run -Werror)
  shift
fi
files=("$@")
if [ ${#files[@]} -eq 0 ]; then
  mapfile -t files < <(git ls-files -co --exclude-standard '*.h' '*.cpp')
fi
# One version formats alike everywhere.
clang-format-14 "${mode[@]}" "${files[@]}"
