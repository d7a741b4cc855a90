#!/usr/bin/env bash
# with_servers.sh [--OPTION=VALUE...] COMMAND [ARGUMENT...]: starts the log, notify and message
# servers that stand beside this script, the last with the options, runs COMMAND, and ends them. For
# use inside the sandbox. The exit status is COMMAND's, or 1 when a server did not start or did not
# end cleanly.
set -euo pipefail
bin=$(dirname "$0")

options=()
while [[ ${1:-} == --* ]]; do
  options+=("$1")
  shift
done

servers=()
start() {
  local program=$1 socket=$2 tries
  "$bin/$program" "${@:3}" &
  servers+=($!)
  for ((tries = 0; tries < 250; ++tries)); do
    [[ -S $socket ]] && return
    sleep 0.02
  done
  echo "with_servers: $program did not open $socket" >&2
  exit 1
}

start mlogserver /var/mlog/mlogServer
start notifyserver /var/run/notify/notifyserver
start msgsvr /var/run/msgsvr "${options[@]}"

status=0
"$@" || status=$?

kill "${servers[@]}"
for server in "${servers[@]}"; do
  wait "$server" || {
    echo "with_servers: a server did not end cleanly" >&2
    status=1
  }
done
exit "$status"
