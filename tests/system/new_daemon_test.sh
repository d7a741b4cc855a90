#!/usr/bin/env bash
# new_daemon_test.sh SOURCE BUILD: the daemon that `./dev new` makes builds against an installed
# library, in C, and passes its own test with the installed servers.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")
unset LD_LIBRARY_PATH PKG_CONFIG_PATH
prefix=/var/private/prefix
cmake --install "$build" --prefix "$prefix" >"$log" || fail "not installed"
cp "$build/bin/with_servers.sh" "$prefix/sbin/"
"$source/tools/new_daemon.sh" sample_1 /var/sample >"$log" || fail "nothing was made"
! grep -rn '@NAME@' /var/sample || fail "a name was left out"

{ cmake -S /var/sample -B /var/sample/build -DCMAKE_PREFIX_PATH="$prefix" &&
  cmake --build /var/sample/build; } >"$log" 2>&1 || fail "CMake's package does not do"
"$prefix/sbin/with_servers.sh" ctest --test-dir /var/sample/build --output-on-failure \
  >"$log" 2>&1 || fail "its test fails"

# Built with pkg-config, without a C++ compiler and its runtime.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046 # the flags are words
cc -std=c99 -Wall -Werror /var/sample/main.c $(pkg-config --cflags --libs libmsgapi-kit) \
  -o /var/sample/sample 2>"$log" || fail "pkg-config's flags do not do"
ldd /var/sample/sample >"$log"
! grep -q 'libstdc++' <(objdump -p /var/sample/sample) || fail "it needs the C++ runtime"

status=0
for name in test Upper 'a b' twelve_chars ../up ''; do
  "$source/tools/new_daemon.sh" "$name" /var/refused 2>"$log" && status=0 || status=$?
  [[ $status == 2 && ! -e /var/refused ]] || fail "'$name' is no name: $status"
done
if "$source/tools/new_daemon.sh" again /var/sample 2>"$log"; then fail "it overwrites"; fi
