#!/bin/bash
# Writes the reference and the guide to build/docs/html: open index.html there, no server is needed.
#
#   scripts/docs.sh           installs what is missing and writes the pages
#   scripts/docs.sh --check   also fails for a public name without a page or a text, and for a
#                             picture that is not what the committed results give
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
  '') packages=(docs) ;;
  --check) packages=(docs g++ clang-14 python3-clang-14) ;;
  *)
    echo "usage: scripts/docs.sh [--check]" >&2
    exit 2
    ;;
esac
scripts/install-deps.sh "${packages[@]}"

rm -rf build/docs/html build/docs/xml
mkdir -p build/docs
doxygen docs/Doxyfile
echo "build/docs/html/index.html"
[ "${1:-}" = --check ] || exit 0

scripts/bench-pictures.py --check
# The system's interpreter: it is the one that has the package's module.
/usr/bin/python3 docs/reference/check.py build/docs src-includes/api components/*/include
