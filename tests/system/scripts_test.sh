#!/usr/bin/env bash
# scripts_test.sh BIN: the scripts that start servers also end them, however the scripts end.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
bin=$(realpath "$1")

nobody_is_left() {
  local left
  left=$(cat /proc/[0-9]*/comm 2>/dev/null | grep -E 'server|msgsvr|^demo' || true)
  [[ -z $left ]] || fail "after $*: $left"
}
# expect STATUS COMMAND...
expect() {
  local wanted=$1 got=0
  shift
  "$@" >"$log" 2>&1 || got=$?
  [[ $got == "$wanted" ]] || fail "$* ended with $got"
  nobody_is_left "$@"
}
servers=$bin/with_servers.sh

expect 0 "$servers" true
expect 3 "$servers" sh -c 'exit 3'
expect 127 "$servers" /no/such/program
# shellcheck disable=SC2016 # the inner shell's own
expect 143 "$servers" bash -c 'kill $PPID; sleep 0.1'
expect 1 "$servers" --queue=nonsense true
mkdir /var/run/msgsvr
expect 1 "$servers" true
rmdir /var/run/msgsvr
# The demo ends with the status of a daemon that fails.
mkdir /var/fails
cp "$bin"/{mlogserver,notifyserver,msgsvr,with_servers.sh,demo.sh,demo_*} /var/fails/
printf '#!/bin/sh\nexit 9\n' >/var/fails/demo_panel
expect 9 /var/fails/demo.sh
for script in "$servers" "$bin/demo.sh"; do
  expect 0 "$script" --help
  grep -q '^usage: ' "$log" || fail "$script --help says something else"
done
expect 2 "$servers"
expect 2 "$bin/demo.sh" nonsense
