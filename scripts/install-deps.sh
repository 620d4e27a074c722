#!/bin/bash
# Installs what is missing of the Debian packages that the other scripts need:
#
#   scripts/install-deps.sh test          the packages of a profile: test, demo, etcd, bench, docs
#                                         or ci
#   scripts/install-deps.sh clang-14 ...  or packages by name
#
# Works on Debian 12 and Ubuntu 24.04 or newer, as root or with sudo; where nothing is missing it
# needs neither. Exits with 69 when packages are missing and cannot be had.
set -euo pipefail

build_packages=(g++ cmake ninja-build libssl-dev libuv1-dev pkgconf)
# What tables across machines are built with, and the servers that they are tested on.
etcd_packages=(libgrpc++-dev libprotobuf-dev protobuf-compiler etcd-server etcd-client openssl
  python3)
test_packages=("${build_packages[@]}" "${etcd_packages[@]}" googletest librapidcheck-dev libcli11-dev
  libarchive-dev libmnl-dev iproute2 libfaketime zstd locales gdb)
demo_packages=("${build_packages[@]}" libcli11-dev)
bench_packages=("${demo_packages[@]}" libbenchmark-dev libflatbuffers-dev flatbuffers-compiler
  libcapnp-dev capnproto libprotobuf-dev protobuf-compiler libevent-dev libboost-dev libabsl-dev
  libre2-dev rapidjson-dev libsqlite3-dev libndpi-dev libhiredis-dev redis-server python3)
docs_packages=(doxygen doxygen-awesome-css python3)
ci_packages=("${test_packages[@]}" "${demo_packages[@]}" "${docs_packages[@]}" clang-14 libclang-rt-14-dev g++-multilib
  clang-format-14 clang-tidy-14 shellcheck gcovr python3-clang-14 valgrind abigail-tools ccache git
  build-essential debhelper lintian mmdebstrap arch-test)

wanted=()
for word in "$@"; do
  case $word in
    test) wanted+=("${test_packages[@]}") ;;
    demo) wanted+=("${demo_packages[@]}") ;;
    etcd) wanted+=("${demo_packages[@]}" "${etcd_packages[@]}") ;;
    bench) wanted+=("${bench_packages[@]}") ;;
    docs) wanted+=("${docs_packages[@]}") ;;
    ci) wanted+=("${ci_packages[@]}") ;;
    -*) echo "install-deps.sh: unknown option $word" >&2; exit 2 ;;
    *) wanted+=("$word") ;;
  esac
done

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=(env DEBIAN_FRONTEND=noninteractive)
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install-deps.sh: missing, and neither root nor sudo to install them: ${missing[*]}" >&2
    exit 69
  fi
  as_root=(sudo "${as_root[@]}")
fi

echo "Installing ${missing[*]}"
# One unreachable index of several does not matter as long as the packages can be had.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"${as_root[@]}" apt-get -qq -o DPkg::Lock::Timeout=300 update >>"$log" 2>&1 || true
if ! "${as_root[@]}" apt-get -qq -y --no-install-recommends -o DPkg::Lock::Timeout=300 \
  install "${missing[@]}" >>"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "install-deps.sh: cannot be had: ${missing[*]}" >&2
  exit 69
fi
