#!/usr/bin/env bash
# The demo, to be run inside the sandbox: `--help` says what it does.
set -euo pipefail
bin=$(realpath "$(dirname "$0")")
PATH=$bin:$PATH

usage() {
  cat <<'HELP'
usage: demo.sh [--inspect]
Starts the servers and the demo's daemons and shows, scene by scene, what they do and the commands
that show it. On a terminal it waits a second before each command (not with CI in the environment).
With --inspect the bus is shown as a page meanwhile, whose address is printed; on a terminal the page
stays until a key is pressed. It is there for browsers outside when `sandbox --listen` has opened the
socket, as `./dev demo --inspect` does.
It runs in the sandbox only: `sandbox -- demo.sh`, or `./dev demo` in the sources.
The exit status is 0 when everything went as it should.
HELP
}
inspect=''
case "${1:-} $#" in
  "--help 1") usage && exit ;;
  "--inspect 1") inspect=127.0.0.1:8970 ;;
  " 0") ;;
  *) usage >&2 && exit 2 ;;
esac
if ! grep -q '^sandbox / tmpfs ' /proc/self/mounts; then
  echo "demo: this is not the sandbox, and the demo would work on this machine's own /var and" \
    "network: run 'sandbox -- $0'" >&2
  exit 2
fi

colour='' plain='' pause_s=0 requests=10000
if [[ -t 1 ]]; then
  colour=$'\e[36m' plain=$'\e[0m'
  [[ -n ${CI:-} ]] || pause_s=1 requests=100000
fi
# What servers and daemons say on their own: beside the programs, to be there when all is over.
lines=$(dirname "$bin")/demo.log
{ : >"$lines"; } 2>/dev/null || lines=/var/log/demo.log

title() { printf '\n== %s\n' "$*"; }
fail() {
  echo "demo: $*; $lines may say more" >&2
  exit 1
}
shown() {
  sleep "$pause_s"
  printf '%s$ %s%s\n' "$colour" "$*" "$plain"
}
# Shows a command line and runs it.
run() {
  shown "$1"
  eval "$1"
}
# Until it succeeds, for ten seconds.
eventually() {
  local tries
  for ((tries = 0; tries < 200; ++tries)); do
    "$@" && return
    sleep 0.05
  done
  fail "gave up on: $*"
}

declare -A servers=()
daemons=()
# Whatever happens, nobody stays, not even who is stopped or waits.
end() {
  local status=$?
  trap - EXIT
  { ((!${#daemons[@]})) || kill -KILL "${daemons[@]}" || true
    ((!${#servers[@]})) || kill "${servers[@]}" || true
    [[ -z ${inspector:-} ]] || kill "$inspector" || true
    wait
  } 2>/dev/null
  exit "$status"
}
trap end EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# start PROGRAM [ARGUMENT...]: a daemon
start() {
  "$@" 2>>"$lines" &
  daemons+=($!)
}
# start_server PROGRAM [ARGUMENT...], and wait until it is ready
start_server() {
  "$@" >>"$lines" 2>&1 &
  servers[$1]=$!
  is_ready() {
    kill -0 "$2" 2>/dev/null || fail "$1 ended"
    grep -q " $1\[$2\]: ready" "$lines"
  }
  eventually is_ready "$1" "$!"
}

echo "What servers and daemons say on their own is in $lines."
if [[ -n $inspect ]]; then
  [[ $(readlink /proc/self/fd/3) != socket:* ]] || inspect=fd:3
  rm -f /var/inspector.address
  mkfifo /var/inspector.address
  msginspect --listen "$inspect" >/var/inspector.address 2>>"$lines" &
  inspector=$!
  read -r address </var/inspector.address || fail "msginspect ended"
  [[ $inspect != fd:3 ]] || exec 3<&-
  echo "The bus in a browser: $address"
fi
cat >/var/demo-apps.json <<JSON
{"applications": [
  {"name": "greeter", "executable": "$bin/demo_greeter", "listen": "tcp:127.0.0.1:7000"}
]}
JSON
start_server mlogserver
start_server notifyserver
start_server msgsvr --http=127.0.0.1:8080 --apps=/var/demo-apps.json --flight-body 256

title "a station and a panel: requests, large bodies, notices, notifications"
start demo_station
run 'msgctl wait cms && msgctl list'
run 'demo_panel'
run 'msgctl call cms 0x1001'

title "what passed is on record, for Wireshark too"
run 'msgctl monitor --history-only type=0x1001 | tail -n 2'
run 'msgctl capture -w /var/bus.pcapng app=cms'
if command -v tshark >/dev/null; then
  run 'msgctl dissector >/var/msgapi.lua'
  run 'tshark -X lua_script:/var/msgapi.lua -r /var/bus.pcapng -Y msgapi.response_time 2>/dev/null | tail -n 3'
else
  echo "(tshark is not installed, and would show it)"
fi

title "an interface goes up; who subscribed is told; curl asks one of them, over HTTP"
start demo_status
start demo_wan
status_says() { curl -s --max-time 2 http://127.0.0.1:8080/dev/info | tr -d '\n\t' | grep "$1"; }
eventually status_says 'demo gateway' >/dev/null
ip link add demo0 type veth peer name demo1
run 'ip link set demo1 up'
# Again until the publisher, which has only just started, has noticed.
link_comes_up() {
  ip link set demo0 down
  ip link set demo0 up
  sleep 0.05
  status_says '"LinkUp"' >/dev/null
}
shown 'ip link set demo0 up'
eventually link_comes_up
run 'curl -s http://127.0.0.1:8080/dev/info; echo'
ip link set demo0 down
eventually status_says '"LinkDown"' >/dev/null

title "a client with a wrong password is locked out"
run 'demo_login'

title "a daemon is started by the first connection to its port"
shown 'cat </dev/tcp/127.0.0.1/7000'
exec 3<>/dev/tcp/127.0.0.1/7000
read -r -t 5 greeting <&3
exec 3>&-
echo "$greeting"

title "what was logged, with personal data masked"
run 'mlog flush && mlog cat cms | head -n 3'
mlog cat cms | grep -qF '00:**:**:33:**:55 at 192.***.*.10 and *' || fail "logs are not masked"

title "the log server is killed, and no line that it had received is lost"
run 'seq -f "reading %g" 500 | mlog print -m demo'
run 'mlog modules | grep demo' # answered after the lines
shown "kill -9 ${servers[mlogserver]}"
{ kill -9 "${servers[mlogserver]}" && wait "${servers[mlogserver]}"; } 2>/dev/null || true
shown 'mlogserver &'
start_server mlogserver
run 'mlog flush && mlog cat demo | wc -l'
[[ $(mlog cat demo | wc -l) == 500 ]] || fail "lines are lost"

title "$requests requests, and beside them what this machine allows: the same way without a look at it"
run "msgctl ping cms --type 0x1003 -n $requests"
run "demo_raw $requests"

title "one who stops reading harms nobody, and what it misses is counted"
run 'msgctl listen --as sleeper &'
daemons+=($!)
eventually msgctl wait sleeper
sleeper=$!
run "kill -STOP $sleeper"
run 'demo_flood sleeper 5000'
run 'msgctl ping cms --type 0x1003 -n 1000'
run 'msgctl stats | grep -E "queue full|CULPRIT|LOSS"'
msgctl stats | grep -Eq 'lost, queue full +[1-9]' || fail "nothing was lost"

title "two daemons that ask each other: one question on is fine, one that comes back is a deadlock"
start demo_knot left
start demo_knot right
eventually msgctl wait left && eventually msgctl wait right
run 'msgctl call left 0x1004 1'
run 'msgctl call left 0x1004 2 --as asker >/dev/null &'
daemons+=($!)
deadlock() { msgctl waits | grep -q deadlock; }
eventually deadlock
run 'msgctl waits'

{ kill -KILL "${daemons[@]}" && wait "${daemons[@]}"; } 2>/dev/null || true
daemons=()
for server in msgsvr notifyserver mlogserver; do
  kill "${servers[$server]}"
  wait "${servers[$server]}" || fail "$server did not end cleanly"
  unset "servers[$server]"
done

if [[ -n $inspect && -t 0 && -t 1 ]]; then
  read -r -s -n 1 -p "Press a key to end; until then the page shows what was: $address" || true
  echo
fi

title "every step went as it should"
cat <<'TEXT'
Now look yourself: './dev shell' (docs/tour.md), and there
  msgctl list      who is on the bus
  msgctl listen    events as they come; 'msgctl publish wan LinkUp if=eth0' makes one
  msgctl doctor    what is not as it should be, and what to do
TEXT
