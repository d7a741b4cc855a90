#!/usr/bin/env bash
# The demo, to be run inside the sandbox: `--help` says what it does.
set -euo pipefail
bin=$(realpath "$(dirname "$0")")

usage() {
  cat <<'HELP'
usage: demo.sh
Starts the servers and the demo's daemons and shows what they say to each other. It runs in the
sandbox only: `sandbox -- demo.sh`, or `./dev demo` in the sources.
The exit status is 0 when everything went as it should.
HELP
}
case "${1:-} $#" in
  "--help 1") usage && exit ;;
  " 0" | "scenes 1") ;;
  *) usage >&2 && exit 2 ;;
esac
if ! grep -q '^sandbox / tmpfs ' /proc/self/mounts; then
  echo "demo: this is not the sandbox, and the demo would work on this machine's own /var and" \
    "network: run 'sandbox -- $0'" >&2
  exit 2
fi

if [[ ${1:-} != scenes ]]; then
  cat >/var/demo-apps.json <<JSON
{"applications": [
  {"name": "greeter", "executable": "$bin/demo_greeter", "listen": "tcp:127.0.0.1:7000"}
]}
JSON
  exec "$bin/with_servers.sh" --http=127.0.0.1:8080 --apps=/var/demo-apps.json "$0" scenes
fi

title() { printf '\n== %s\n' "$*"; }

daemons=()
end_daemons() {
  ((${#daemons[@]})) || return 0
  kill "${daemons[@]}" 2>/dev/null || true
  wait "${daemons[@]}" 2>/dev/null || true
  daemons=()
}
# Whatever fails, no daemon stays.
trap end_daemons EXIT
start() {
  "$bin/demo_$1" &
  daemons+=($!)
}

# Until it succeeds, for five seconds.
eventually() {
  local tries
  for ((tries = 0; tries < 100; ++tries)); do
    "$@" && return
    sleep 0.05
  done
  echo "demo: gave up on: $*" >&2
  exit 1
}

title "two daemons, a station and a panel: requests, large bodies, notices, notifications"
start station
"$bin/demo_panel"

title "a network interface goes up; who subscribed is told; curl reads it from a restful handler"
start status
start wan
status_says() { curl -s --max-time 2 http://127.0.0.1:8080/dev/info | tr -d '\n\t' | grep "$1"; }
eventually status_says 'demo gateway' >/dev/null
ip link add demo0 type veth peer name demo1
ip link set demo1 up
# Again until the publisher, which has only just started, has noticed.
link_comes_up() {
  ip link set demo0 down
  ip link set demo0 up
  sleep 0.05
  status_says '"LinkUp"'
}
eventually link_comes_up
ip link set demo0 down
eventually status_says '"LinkDown"'

title "a client with a wrong password is locked out"
"$bin/demo_login"

title "a dynamic application starts at the first connection to its port"
exec 3<>/dev/tcp/127.0.0.1/7000
read -r -t 5 greeting <&3
exec 3>&-
echo "$greeting"

title "what was logged, with personal data masked"
end_daemons
"$bin/mlog" flush
"$bin/mlog" cat
"$bin/mlog" cat cms | grep -qF '00:**:**:33:**:55 at 192.***.*.10 and *'

title "every step went as it should"
cat <<'TEXT'
Now look yourself: './dev shell' (docs/tour.md), and there
  msgctl list      who is on the bus
  msgctl listen    events as they come; 'msgctl publish wan LinkUp if=eth0' makes one
  msgctl doctor    what is not as it should be, and what to do
TEXT
