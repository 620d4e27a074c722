#!/bin/bash
# Installs what is missing, builds the library and passes its tests.
# Needs Debian 12, Ubuntu 24.04 or newer, and root or sudo if something has to be installed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh test
scripts/check-cmake.sh

jobs=$(nproc)
cmake --preset release -DKORVO_TESTS=ON
cmake --build --preset release --parallel "$jobs" --target all all_verify_interface_header_sets
ctest --preset release --parallel "$jobs" "$@"
