#!/usr/bin/env bash
# dev_test.sh SOURCE: ./dev says how the tests went, also when no test has the given name. It runs in
# a tree of its own that has nothing to build.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")

# expect STATUS TEXT WORD...
expect() {
  local wanted=$1 text=$2 got=0
  shift 2
  PATH=/var/stubs:$PATH ./dev "$@" >"$log" 2>&1 || got=$?
  [[ $got == "$wanted" ]] || fail "./dev $* ended with $got"
  grep -qF -- "$text" "$log" || fail "./dev $* does not say $text"
}

mkdir -p /var/tree/build/debug /var/tree/build/asan /var/stubs
cp "$source"/{dev,CMakePresets.json} /var/tree
cd /var/tree
for preset in debug asan; do
  touch build/$preset/{build.ninja,CMakeCache.txt}
  printf 'add_test(%s %s)\n' Good.One /bin/true Bad.One /bin/false >build/$preset/CTestTestfile.cmake
done
# Stubs say that everything is built and every package is installed.
printf '#!/bin/sh\nexit 0\n' >/var/stubs/cmake
printf '#!/bin/sh\necho installed\n' >/var/stubs/dpkg-query
chmod +x /var/stubs/*

expect 0 '100% tests passed' test -R Good
expect 0 '100% tests passed' test asan -R Good
for preset in debug asan; do
  expect 8 'Bad.One' test $preset
  expect 8 'No tests were found' test $preset -R NoSuch
done
expect 8 'No tests were found' test -R NoSuch
expect 1 "there is no command 'tset'" tset
expect 0 'usage: ./dev COMMAND' test --help
