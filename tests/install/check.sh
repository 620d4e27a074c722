#!/bin/bash
# Installs a built tree and uses the library in the three ways that a user may: find_package,
# pkg-config and add_subdirectory. Programs start as they are: without LD_LIBRARY_PATH.
#
#   tests/install/check.sh BUILD_DIR WORK_DIR      with the compiler CXX
#
# The installed tree is left in WORK_DIR/moved.
#
# KORVO_SPOIL=header, library, path or the name of a component damages the installed tree first, to
# show that the check would see it.
set -euo pipefail
unset LD_LIBRARY_PATH
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
build=$1
work=$2

shared=$(sed -n 's/^BUILD_SHARED_LIBS:BOOL=//p' "$build/CMakeCache.txt")
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)

# The tree is moved after the installation: nothing may depend on where it was installed first.
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
prefix=$work/moved
mv "$work/first" "$prefix"
libdir=$(dirname "$(find "$prefix" -name pkgconfig -type d)")

case ${KORVO_SPOIL:-} in
  header) echo 'Canary' >>"$prefix/include/Korvo/korvo_types.h" ;;
  library) rm "$libdir"/libKorvoAPI.* ;;
  path) sed -i 's/ -Wl,-rpath,.*//' "$libdir"/pkgconfig/*.pc ;;
  ?*) rm "$libdir/libKorvo$KORVO_SPOIL".* ;;
esac

# run_consumer PROGRAM: it prints what it should, and uses the kind of library it was linked with.
run_consumer() {
  "$1" | diff "$here/consumer.expected" -
  if readelf -d "$1" | grep -q 'NEEDED.*libKorvoAPI'; then
    [ "$shared" = ON ]
  else
    [ "$shared" = OFF ]
  fi
}

run_event_loop() {
  [ "$("$1")" = 'the timer ran out' ]
}

run_tables() {
  [ "$("$1")" = 'added eth0' ]
}

run_etcd() {
  [ "$("$1")" = 'nobody at 127.0.0.1:1' ]
}

# The library itself comes without its components.
cmake -G Ninja -S "$here/find_package" -B "$work/find_package" -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$work/find_package"
run_consumer "$work/find_package/consumer"
if readelf -d "$work/find_package/consumer" "$libdir"/libKorvoAPI.so* 2>/dev/null |
  grep -E 'NEEDED.*(libuv|libgrpc|libKorvo(EventLoop|Tables|EtcdTables))'; then
  echo "the library needs a component" >&2
  exit 1
fi
cmake -G Ninja -S "$here/find_package" -B "$work/event_loop" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCOMPONENTS=EventLoop
cmake --build "$work/event_loop"
run_consumer "$work/event_loop/consumer"
run_event_loop "$work/event_loop/event_loop"
# A component brings those that it is built on.
cmake -G Ninja -S "$here/find_package" -B "$work/tables" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCOMPONENTS=Tables
cmake --build "$work/tables"
run_tables "$work/tables/tables"
if readelf -d "$work/tables/tables" "$libdir"/libKorvo{EventLoop,Tables}.so* 2>/dev/null |
  grep -E 'NEEDED.*(libgrpc|libproto|libKorvoEtcdTables)'; then
  echo "the tables need those across machines" >&2
  exit 1
fi
cmake -G Ninja -S "$here/find_package" -B "$work/etcd" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCOMPONENTS=EtcdTables
cmake --build "$work/etcd"
run_etcd "$work/etcd/etcd"
echo "find_package: good"

# The tool finds the library beside it, and makes row classes for those who use the package.
if grep -q '^KORVO_TOOL:BOOL=ON' "$build/CMakeCache.txt"; then
  cmake -G Ninja -S "$here/generated" -B "$work/generated" -DCMAKE_PREFIX_PATH="$prefix"
  cmake --build "$work/generated"
  [ "$("$work/generated/generated")" = '{"name":"eth0"}' ]
  [ "$("$prefix/bin/korvo" address ::1 | sed -n 2p)" = 'short   ::1' ]
  [ -s "$prefix/share/man/man1/korvo.1" ]
  [ -s "$prefix/share/bash-completion/completions/korvo" ]
  echo "korvo: good"
fi

# A component that does not exist is refused, by its name.
if cmake -G Ninja -S "$here/find_package" -B "$work/no_such" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCOMPONENTS=NoSuch >"$work/no_such.log" 2>&1; then
  echo "find_package accepts a component that does not exist" >&2
  exit 1
fi
grep -q 'its component NoSuch is not installed' "$work/no_such.log"

# One version everywhere.
header_version=$(sed -n 's/^#define KORVO_VERSION_[A-Z]* \([0-9]*\)$/\1/p' \
  "$prefix/include/Korvo/version.h" | paste -sd .)
cmake_version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$header_version" = "$cmake_version" ]

export PKG_CONFIG_PATH=$libdir/pkgconfig
for module in KorvoAPI KorvoEventLoop KorvoTables KorvoEtcdTables; do
  [ "$(pkg-config --modversion $module)" = "$header_version" ]
done
static=()
[ "$shared" = ON ] || static=(--static)
read -ra flags <<<"$(pkg-config --cflags --libs "${static[@]}" KorvoAPI)"
"${CXX:-c++}" -std=c++20 "$here/consumer.cpp" -o "$work/pkg_config" "${flags[@]}"
run_consumer "$work/pkg_config"
read -ra flags <<<"$(pkg-config --cflags --libs "${static[@]}" KorvoEventLoop)"
"${CXX:-c++}" -std=c++20 "$here/event_loop.cpp" -o "$work/pkg_config_event_loop" "${flags[@]}"
run_event_loop "$work/pkg_config_event_loop"
read -ra flags <<<"$(pkg-config --cflags --libs "${static[@]}" KorvoTables)"
"${CXX:-c++}" -std=c++20 "$here/tables.cpp" -o "$work/pkg_config_tables" "${flags[@]}"
run_tables "$work/pkg_config_tables"
read -ra flags <<<"$(pkg-config --cflags --libs "${static[@]}" KorvoEtcdTables)"
"${CXX:-c++}" -std=c++20 "$here/etcd.cpp" -o "$work/pkg_config_etcd" "${flags[@]}"
run_etcd "$work/pkg_config_etcd"
echo "pkg-config: good"

cmake -G Ninja -S "$here/subdirectory" -B "$work/subdirectory" -DBUILD_SHARED_LIBS="$shared" \
  -DKORVO_SOURCE_DIR="$source_dir"
cmake --build "$work/subdirectory"
run_consumer "$work/subdirectory/consumer"
if grep -q -e '-Werror' "$work/subdirectory/compile_commands.json"; then
  echo "add_subdirectory brings flags of its own" >&2
  exit 1
fi
echo "add_subdirectory: good"
