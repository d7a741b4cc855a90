#!/usr/bin/env bash
# readme_test.sh SOURCE BUILD: runs the README's commands for its daemon, from building the library to
# compiling, in a clean copy of the project. The daemon then runs with the servers of BUILD and prints
# what the README says.
set -euo pipefail
source=$(realpath "$1")
build=$(realpath "$2")

# The same path in every run, for the compiler's cache. The sandbox's /var goes with the sandbox.
copy=/var/readme
mkdir "$copy"
tar -C "$source" --exclude=./build --exclude=./.git -c . | tar -C "$copy" --no-same-owner -x
cd "$copy"

awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' README.md >hello.c
lines=$(grep -c . hello.c)
((0 < lines && lines <= 21)) || { echo "the daemon has $lines lines"; exit 1; }

commands=$(sed -n '/^```c$/,/^## /s/^    //p' README.md)
[[ $commands == *"./dev build"*"cc "* ]] || { echo "README.md has no commands, but: $commands"; exit 1; }
# The compiler leaves room for the tests that run beside this one.
nice -n 5 bash -euc "$commands" || { echo "failed: $commands"; exit 1; }

output=$("$build/bin/with_servers.sh" ./hello) || status=$?
# It ends with the low byte of "nothing came for 100 ms".
[[ ${status:-0} == 5 ]] || { echo "hello ended with ${status:-0}"; exit 1; }
[[ $output == *42* ]] || { echo "hello printed: $output"; exit 1; }
