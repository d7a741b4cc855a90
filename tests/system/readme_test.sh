#!/usr/bin/env bash
# readme_test.sh SOURCE BUILD: runs the README's commands for its daemon, from building the library to
# compiling, in a clean copy of the project. The daemon then runs with the servers of BUILD and prints
# what the README says.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")

# The same path in every run, for the compiler's cache. The sandbox's /var goes with the sandbox.
copy=/var/readme
mkdir "$copy"
tar -C "$source" --exclude=./build --exclude=./.git -c . | tar -C "$copy" --no-same-owner -x
cd "$copy"

readme_code . >hello.c
lines=$(grep -c . hello.c)
((0 < lines && lines <= 21)) || fail "the daemon has $lines lines"

commands=$(sed -n '/^```c$/,/^## /s/^    //p' README.md)
[[ $commands == *"./dev build"*"cc "* ]] || fail "README.md has no commands, but: $commands"
# The compiler leaves room for the tests that run beside this one.
nice -n 5 bash -euc "$commands" || fail "failed: $commands"

daemon_runs "$build/bin" ./hello
