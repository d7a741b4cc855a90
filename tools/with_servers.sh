#!/usr/bin/env bash
# with_servers.sh [--OPTION=VALUE...] COMMAND [ARGUMENT...]: `--help` says what it does.
set -euo pipefail
bin=$(dirname "$0")

say() { echo "with_servers: $*" >&2; }
usage() {
  cat <<'HELP'
usage: with_servers.sh [--OPTION=VALUE...] COMMAND [ARGUMENT...]
Starts the log, notify and message servers that stand beside this script, the last with the options,
runs COMMAND, and ends them. It runs in the sandbox only: `sandbox -- with_servers.sh ...`.
The exit status is COMMAND's, or 1 when a server did not start or did not end cleanly.
HELP
}

options=()
while [[ ${1:-} == --* ]]; do
  [[ $1 == --help ]] && usage && exit
  options+=("$1")
  shift
done
(($#)) || { usage >&2; exit 2; }
if ! grep -q '^sandbox / tmpfs ' /proc/self/mounts; then
  say "this is not the sandbox, and the servers would work on this machine's own /var:" \
    "run 'sandbox -- $0 ...'"
  exit 2
fi

servers=()
# No server is left behind, whatever happens.
end_servers() {
  status=$?
  trap - EXIT
  ((!${#servers[@]})) || kill "${servers[@]}" 2>/dev/null || true
  for server in "${servers[@]}"; do
    wait "$server" || {
      say "a server did not end cleanly"
      status=1
    }
  done
  exit "$status"
}
trap end_servers EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

start() {
  local program=$1 socket=$2 tries
  "$bin/$program" "${@:3}" &
  servers+=($!)
  for ((tries = 0; tries < 250; ++tries)); do
    [[ -S $socket ]] && return
    kill -0 "$!" 2>/dev/null || break
    sleep 0.02
  done
  say "$program did not open $socket"
  exit 1
}

start mlogserver /var/mlog/mlogServer
start notifyserver /var/run/notify/notifyserver
start msgsvr /var/run/msgsvr "${options[@]}"

"$@"
