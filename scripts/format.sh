#!/bin/sh
# Reformats the sources, or with --check only tells which ones need it.
set -eu
cd "$(dirname "$0")/.."
files=$(git ls-files -co --exclude-standard '*.h' '*.cpp' | grep -v '^build/')
if [ "${1:-}" = --check ]; then
  # shellcheck disable=SC2086
  exec clang-format --dry-run -Werror $files
fi
# shellcheck disable=SC2086
clang-format -i $files
