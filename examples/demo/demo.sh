#!/usr/bin/env bash
# The demo, to be run inside the sandbox: starts the servers and two daemons and shows what they
# say to each other. The exit status is 0 when everything went as it should.
set -euo pipefail
bin=$(dirname "$0")

wait_for() {
  local tries
  for ((tries = 0; tries < 200; ++tries)); do
    [[ -e $1 ]] && return
    sleep 0.02
  done
  echo "demo: $1 did not appear" >&2
  exit 1
}

title() { printf '\n== %s\n' "$*"; }

title "the servers"
servers=()
for server in mlogserver notifyserver msgsvr; do
  "$bin/$server" &
  servers+=($!)
done
wait_for /var/mlog/mlogServer
wait_for /var/run/notify/notifyserver
wait_for /var/run/msgsvr
echo "mlogserver, notifyserver and msgsvr are listening"

title "two daemons"
"$bin/demo_station" &
station=$!
sleep 0.2
"$bin/demo_panel"

title "what they logged"
cat /var/mlog/cms* /var/mlog/web*

title "the end"
kill "$station"
kill "${servers[@]}"
for server in "${servers[@]}"; do
  wait "$server"
done
echo "every request was answered, every notification arrived, every server ended cleanly"
