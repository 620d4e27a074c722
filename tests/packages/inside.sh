#!/bin/bash
# The part of check.sh that runs in the root, in the folder of this script.
set -euo pipefail
cd "$(dirname "$0")"

fail() {
  echo "$*" >&2
  exit 1
}

# runs_as_expected FOLDER: the programs there print what they should, and find the libraries where
# the system has them.
runs_as_expected() {
  "$1/readme" | diff expected.txt -
  [ "$("$1/event_loop")" = 'the timer ran out' ]
  [ "$("$1/tables")" = 'added eth0' ]
  [ "$("$1/etcd")" = 'nobody at 127.0.0.1:1' ]
  for program in "$1/readme" "$1/event_loop" "$1/tables" "$1/etcd"; do
    if readelf -d "$program" | grep -E 'RPATH|RUNPATH'; then fail "$program has a path"; fi
    readelf -d "$program" | grep -q 'NEEDED.*libKorvo' || fail "$program has no library of ours"
  done
}

# tool_works ARCHITECTURE FLAGS: it runs, reads packed files, and CMake finds it and its functions.
tool_works() {
  local word_size=${2#-m}
  readelf -h /usr/bin/korvo | grep -q "ELF$word_size" || fail "korvo is not of $1"
  if readelf -d /usr/bin/korvo | grep -E 'RPATH|RUNPATH'; then fail "korvo has a path"; fi
  [ "$(korvo convert -l tool/port.korvo --from json tool/ports.json --as csv)" = "$(cat tool/ports.csv)" ]
  korvo convert -l tool/port.korvo --from json tool/ports.json -o ports.rows
  [ "$(gzip -c ports.rows | korvo check -l tool/port.korvo -)" = 'standard input: 2 good rows' ]
  gzip -dc /usr/share/man/man1/korvo.1.gz | grep -q '^\.TH' || fail "korvo has no manual page"
  bash -c '. /usr/share/bash-completion/completions/korvo && complete -p korvo' >/dev/null
  cmake -S tool -B "tool-$1" -DCMAKE_CXX_FLAGS="$2" \
    -DKorvoAPI_DIR="/usr/lib/$triplet/cmake/KorvoAPI"
  cmake --build "tool-$1"
  [ "$("tool-$1/agent")" = '{"speed":10000,"name":"eth0"}' ]
}

apt-get -qq update
# All architectures beside each other.
apt-get install -qq -y --no-install-recommends ./lib*.deb </dev/null

for architecture in "$@"; do
  case $architecture in
    amd64) triplet=x86_64-linux-gnu flags=-m64 ;;
    i386) triplet=i386-linux-gnu flags=-m32 ;;
  esac

  cmake -S . -B "cmake-$architecture" -DCMAKE_CXX_FLAGS="$flags" \
    -DKorvoAPI_DIR="/usr/lib/$triplet/cmake/KorvoAPI"
  cmake --build "cmake-$architecture"
  runs_as_expected "cmake-$architecture"

  mkdir "pkg-config-$architecture"
  export PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig
  # shellcheck disable=SC2046
  {
    c++ -std=c++20 "$flags" readme.cpp $(pkg-config --cflags --libs KorvoAPI) \
      -o "pkg-config-$architecture/readme"
    c++ -std=c++20 "$flags" event_loop.cpp $(pkg-config --cflags --libs KorvoEventLoop) \
      -o "pkg-config-$architecture/event_loop"
    c++ -std=c++20 "$flags" tables.cpp $(pkg-config --cflags --libs KorvoTables) \
      -o "pkg-config-$architecture/tables"
    c++ -std=c++20 "$flags" etcd.cpp $(pkg-config --cflags --libs KorvoEtcdTables) \
      -o "pkg-config-$architecture/etcd"
  }
  runs_as_expected "pkg-config-$architecture"

  # The debugger finds the symbols of each library by its number.
  for library in /usr/lib/"$triplet"/libKorvo*.so.*.*.*; do
    id=$(readelf -n "$library" | sed -n 's/.*Build ID: //p')
    [ -e "/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" ] || fail "$library has no debug symbols"
  done

  # The tool of one architecture takes the other's place.
  apt-get install -qq -y --no-install-recommends --allow-downgrades \
    "./korvo-tools_"*"_$architecture.deb" </dev/null
  tool_works "$architecture" "$flags"
  echo "$architecture: good"
done
[ -e /usr/share/doc/libkorvoapi-dev/html/index.html ] || fail "there is no documentation"

mapfile -t ours < <(dpkg-query -W -f '${binary:Package}\n' '*korvo*')
apt-get purge -qq -y --auto-remove "${ours[@]}" </dev/null
if dpkg-query -W '*korvo*' 2>/dev/null; then fail "these packages are left"; fi
left=$(find / -xdev -iname '*korvo*' ! -path "$PWD/*" ! -path '/proc/*')
[ -z "$left" ] || fail "left behind: $left"
echo "removed: good"
