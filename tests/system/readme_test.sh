#!/usr/bin/env bash
# readme_test.sh SOURCE BUILD: the README's daemon, compiled by exactly the line that stands there
# and run with the servers, prints what the README says.
set -euo pipefail
source=$(realpath "$1")
build=$(realpath "$2")

copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
mkdir "$copy/build"
ln -s "$source/include" "$copy/include"
ln -s "$build" "$copy/build/release"
cd "$copy"

awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/README.md" >hello.c
compile=$(sed -n 's/^    \(cc .*\)/\1/p' "$source/README.md")
[[ -s hello.c && -n $compile ]] || { echo "README.md has no daemon or no line to compile it"; exit 1; }
lines=$(grep -c . hello.c)
((lines <= 21)) || { echo "the daemon has grown to $lines lines"; exit 1; }
bash -euc "$compile"

output=$("$build/bin/with_servers.sh" ./hello) || status=$?
# It ends with the low byte of "nothing came for 100 ms".
[[ ${status:-0} == 5 ]] || { echo "hello ended with ${status:-0}"; exit 1; }
[[ $output == *42* ]] || { echo "hello printed: $output"; exit 1; }
