#!/usr/bin/env bash
# shell.sh [--http PORT] [--inspect] [COMMAND [ARGUMENT...]]: fills the configuration store with its
# defaults, starts the servers, with HTTP on port 8080 or PORT, and runs COMMAND, or else an
# interactive shell. With --inspect the bus is shown as a page, whose address is in $INSPECTOR.
# Browsers outside reach the page when `sandbox --listen` has opened the socket.
# For use inside the sandbox, with the programs in PATH. The servers' output goes to a file. The exit
# status is the command's.
set -euo pipefail
readonly server_lines=/var/log/servers.log

# with_servers.sh runs this script again as its COMMAND: standard error becomes the terminal again.
if [[ ${1:-} == --within ]]; then
  exec 2>&3 3>&-
  exec "${@:2}"
fi

port=8080 inspect=
while [[ ${1:-} == --* ]]; do
  case $1 in
    --http)
      port=${2:-}
      shift "$(($# < 2 ? 1 : 2))"
      ;;
    --http=*)
      port=${1#*=}
      shift
      ;;
    --inspect)
      inspect=127.0.0.1:8970
      shift
      ;;
    *)
      echo "shell: there is no option $1" >&2
      exit 2
      ;;
  esac
done
if [[ ! $port =~ ^[0-9]{1,5}$ ]] || ((10#$port < 1 || 10#$port > 65535)); then
  echo "shell: --http takes a port from 1 to 65535, not '$port'" >&2
  exit 2
fi

if [[ -n $inspect ]]; then
  [[ $(readlink /proc/self/fd/3) != socket:* ]] || inspect=fd:3
  rm -f /var/inspector.address
  mkfifo /var/inspector.address
  msginspect --listen "$inspect" >/var/inspector.address &
  trap 'kill %1 2>/dev/null || true' EXIT
  [[ $inspect != fd:3 ]] || exec 3<&-
  read -r INSPECTOR </var/inspector.address || exit 1
  export INSPECTOR
fi

if (($# == 0)); then
  [[ -z $inspect ]] || echo "The bus in a browser: $INSPECTOR" >&2
  cat >&2 <<TEXT
Servers for messages, notifications and logs run here; what they say is in $server_lines.
Restful requests by HTTP: curl http://127.0.0.1:$port/...
'cfmctl list' shows the configuration store, 'mlog tail -f' the logs. 'exit' ends all.
TEXT
  readonly start_file=/var/shellrc
  cat >"$start_file" <<'START'
[[ -f ~/.bashrc ]] && . ~/.bashrc
PS1='(msgapi sandbox) \w\$ '
START
  printf '. %q\n' "$(realpath "$(dirname "$0")")/msgctl/completion/msgctl.bash" >>"$start_file"
  set -- bash --rcfile "$start_file" -i
fi

cfmctl import --defaults "$(dirname "$0")/cfmctl/defaults.json"

status=0
with_servers.sh "--http=127.0.0.1:$port" "$(realpath "$0")" --within "$@" 3>&2 2>"$server_lines" || status=$?
# A server that did not start or end well must be reported; its own lines say why.
if grep -q '^with_servers: ' "$server_lines"; then tail -n 5 "$server_lines" >&2; fi
exit "$status"
