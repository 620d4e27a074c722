#!/bin/bash
# Builds programs of users whose settings differ from the library's: those that fit run, those that
# do not fit are refused with a text that says why.
#
#   tests/install/settings.sh COMPILER SHARED_PREFIX STATIC_PREFIX WORK_DIR
#
# The prefixes are installed trees.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
compiler=$1
shared=$2
static=$3
work=$4
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
unset LD_LIBRARY_PATH

fail() {
  echo "$compiler: $*" >&2
  exit 1
}

# compile PREFIX SOURCE PROGRAM OPTION...: as `pkg-config` says, in the way of the README.
compile() {
  local prefix=$1 source=$2 program=$3 flags
  shift 3
  flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name KorvoAPI.pc)") \
    pkg-config --cflags --libs KorvoAPI)
  # shellcheck disable=SC2086
  "$compiler" -std=c++20 "$@" "$here/$source" -o "$work/$program" $flags
}

# accepted PREFIX OPTION...: the program compiles without a warning, and does what it should.
accepted() {
  compile "$1" host.cpp host "${@:2}" -Wall -Wextra -Werror
  "$work/host" | diff "$here/host.expected" -
}

# refused PREFIX SYMBOL OPTION...: the program compiles and does not link, and the linker names the
# symbol.
refused() {
  local prefix=$1 symbol=$2
  shift 2
  if compile "$prefix" host.cpp refused "$@" >"$work/log" 2>&1; then
    fail "a program with $* links a library that was built without"
  fi
  grep -q "undefined reference to .*\[abi:$symbol\]" "$work/log" ||
    fail "the linker does not name $symbol: $(cat "$work/log")"
}

cpp23=-std=c++23
[[ $compiler == g++* ]] || cpp23=-std=c++2b # clang 14 knows no other name

for prefix in "$shared" "$static"; do
  for options in -O0 '-O2 -flto'; do
    # shellcheck disable=SC2086
    {
      refused "$prefix" built_with_GLIBCXX_DEBUG -D_GLIBCXX_DEBUG $options
      refused "$prefix" built_with_GLIBCXX_USE_CXX11_ABI_0 -D_GLIBCXX_USE_CXX11_ABI=0 $options
      refused "$prefix" built_with_GLIBCXX_DEBUG_and_USE_CXX11_ABI_0 \
        -D_GLIBCXX_DEBUG -D_GLIBCXX_USE_CXX11_ABI=0 $options
    }
  done
  for options in '' -O2 '-O2 -flto' "$cpp23" -fno-rtti -fsanitize=undefined \
    -fsanitize=address -D_GLIBCXX_ASSERTIONS; do
    # shellcheck disable=SC2086
    accepted "$prefix" $options
  done
done
echo "$compiler, the installed library: good"

# What takes no function of the library links without it, whatever the settings.
for options in '' -D_GLIBCXX_DEBUG -D_GLIBCXX_USE_CXX11_ABI=0; do
  # shellcheck disable=SC2086
  "$compiler" -std=c++20 -O2 $options -I "$shared/include" "$here/headers_only.cpp" \
    -o "$work/headers_only"
  "$work/headers_only"
done
echo "$compiler, headers alone: good"

# Without exceptions the first error says so, whichever header comes first.
for header in KoStrUtils KorvoApi Scheduler TableRow baseRow korvo_types rowCheck; do
  if echo "#include <Korvo/$header.h>" |
    "$compiler" -std=c++20 -fno-exceptions -I "$shared/include" -x c++ -fsyntax-only - \
      >"$work/log" 2>&1; then
    fail "$header.h compiles without exceptions"
  fi
  grep -m1 'error' "$work/log" | grep -q 'headers of KorvoAPI need exceptions' ||
    fail "$(cat "$work/log")"
done
echo "$compiler, no exceptions: good"

# Hosts that build the library with their own settings.
# built_by_host NAME OPTIONS CMAKE_OPTION...
built_by_host() {
  local folder=$work/$1 options=$2
  shift 2
  cmake -G Ninja -S "$here/host" -B "$folder" -DCMAKE_CXX_COMPILER="$compiler" \
    -DKORVO_SOURCE_DIR="$source_dir" -DOPTIONS="$options" "$@" >"$work/log" || fail "$(cat "$work/log")"
  cmake --build "$folder" >"$work/log" || fail "$(cat "$work/log")"
  "$folder/host" | diff "$here/host.expected" -
}
libs32=$source_dir/build/libs32
built_by_host unity '-fno-rtti' -DCMAKE_UNITY_BUILD=ON -DCMAKE_CXX_STANDARD=23
built_by_host lto '-O2;-flto' -DBUILD_SHARED_LIBS=OFF -DCMAKE_UNITY_BUILD=ON
built_by_host m32 -m32 -DOPENSSL_INCLUDE_DIR="$libs32/usr/include" \
  -DOPENSSL_CRYPTO_LIBRARY="$libs32/usr/lib/i386-linux-gnu/libcrypto.so"
built_by_host sanitized '-fsanitize=undefined;-fno-sanitize-recover=all'
built_by_host debug -D_GLIBCXX_DEBUG
built_by_host old_abi -D_GLIBCXX_USE_CXX11_ABI=0
echo "$compiler, the library built by its host: good"

# ThreadSanitizer with a library built without it.
compile "$shared" threads.cpp threads -g -O1 -fsanitize=thread
race='WARNING: ThreadSanitizer: data race'
supp=$(find "$shared" -name tsan.supp)
if "$work/threads" rows >"$work/log" 2>&1; then
  fail "ThreadSanitizer sees what the library does: $supp is not needed"
fi
grep -q "$race" "$work/log"
TSAN_OPTIONS=suppressions=$supp "$work/threads" rows >"$work/log" 2>&1 || fail "$(cat "$work/log")"
if TSAN_OPTIONS=suppressions=$supp "$work/threads" units >"$work/log" 2>&1; then
  fail "$supp hides a race in the user's own code"
fi
grep -q "$race" "$work/log"
echo "$compiler, ThreadSanitizer: good"
