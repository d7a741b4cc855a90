#!/usr/bin/env bash
# fleet.sh [BRIDGES [SECONDS [EVENTS]]]: connects BRIDGES bridges to one broker on this machine, and
# publishes EVENTS events a second on their bus for SECONDS. Prints what arrived, how long an event
# took from the bus to a subscriber of the broker, and what a bridge costs. Run it in the sandbox,
# with the programs of a bench build first in PATH:
#
#   PATH=$PWD/build/bench/bin:$PATH build/bench/bin/sandbox -- bench/fleet.sh 200 120 25
#   PATH=$PWD/build/bench/bin:$PATH build/bench/bin/sandbox -- bench/fleet.sh 1 5 5000
#
# All bridges are on one bus, so each event goes up once for each of them. Subscriber, broker,
# message server and publisher share the machine with them. Needs mosquitto and mosquitto-clients.
set -euo pipefail
bridges=${1:-200} seconds=${2:-120} events=${3:-25}
[[ "$bridges $seconds $events" =~ ^[0-9]+\ [0-9]+\ [0-9]+$ ]] || {
  echo "usage: fleet.sh [BRIDGES [SECONDS [EVENTS]]]" >&2
  exit 2
}
export PATH=$PATH:/usr/sbin
for program in mosquitto mosquitto_sub msgsvr msgbridge event_source; do
  command -v "$program" >/dev/null || {
    echo "fleet.sh: $program is missing" >&2
    exit 1
  }
done
# This must not touch a bus that is in use.
[[ $(stat -f -c %T /var) == tmpfs ]] || {
  echo "fleet.sh: run it in the sandbox" >&2
  exit 1
}

work=$(mktemp -d /var/fleet.XXXXXX)
cd "$work"
ulimit -n 65536 2>/dev/null || ulimit -n "$(ulimit -Hn)"
printf 'user root\nlistener 1883 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\nmax_inflight_messages 1000\n' >broker.conf
mosquitto -c broker.conf >broker.log 2>&1 &
# On a real gateway a bridge has its own bus; here one bus carries the load of all.
msgsvr --user-subscriptions 65536 >bus.log 2>&1 &
until [[ -S /var/run/msgsvr ]]; do sleep 0.1; done

# The sandbox's files are memory, which must hold the space that all spools reserve.
bytes=$((bridges > 8 ? 262144 : 4194304))
pids=()
for ((i = 1; i <= bridges; ++i)); do
  cat >"bridge$i.json" <<JSON
{"broker": {"addresses": ["mqtt://127.0.0.1"]}, "gateway": "gw-$i", "up": [{}],
 "spool": {"path": "$work/spool$i.db", "bytes": $bytes}}
JSON
  msgbridge --config "bridge$i.json" >"bridge$i.log" 2>&1 &
  pids+=($!)
done
echo "waiting for $bridges bridges"
until (($(cat bridge*.log 2>/dev/null | grep -c 'Connected to mqtt') >= bridges)); do sleep 0.5; done

mosquitto_sub -V 5 -q 0 -t 'gw/+/event/#' -t 'gw/+/lost' -F '%U %P %p\e' >heard &
sub=$!
sleep 1
echo "publishing $events events a second for $seconds s"
used() { awk '{ t += $14 + $15 } END { print t + 0 }' "${pids[@]/%//stat}"; }
pids=("${pids[@]/#//proc/}")
before=$(used)
start=$(date +%s%N)
event_source "$events" "$seconds"
wanted=$((events * seconds * bridges))
# Waits until nothing has come for two seconds.
for ((last = -1, now = 0; now < wanted && now != last; now = $(grep -c sequence heard || true))); do
  last=$now
  sleep 2
done
after=$(used)
# The subscriber writes what it still has when it ends.
kill "$sub"
wait "$sub" || true
grep -q sequence heard || {
  echo "fleet.sh: no event arrived"
  tail -n 3 broker.log bus.log bridge1.log
  exit 1
} >&2

awk -v bridges="$bridges" -v wanted="$wanted" -v start="$start" -v ticks="$((after - before))" \
  -v hz="$(getconf CLK_TCK)" -v RS='\033' '
  /"reason"/ { match($0, /"count":[0-9]+/); lost += substr($0, RSTART + 8, RLENGTH - 8); next }
  match($0, /sent[^0-9]*[0-9.]+/) {
    text = substr($0, RSTART, RLENGTH)
    gsub(/[^0-9.]/, "", text)
    ms = ($1 - text) * 1000
    delays[++n] = ms < 0 ? 0 : ms
    if ($1 > end) end = $1
  }
  END {
    took = end - start / 1e9
    printf "%d of %d events arrived on %d bridges, %d given up; %.0f a second for each bridge until the last\n",
      n, wanted, bridges, lost, n / took / bridges
    printf "processor time of the bridges: %.0f us for each event\n", ticks / hz * 1e6 / n
    sort_numbers(delays, n)
    printf "from publishing to the subscriber: median %.0f ms, p99 %.0f ms, max %.0f ms\n",
      delays[int((n + 1) / 2)], delays[int(n * 0.99 + 0.5)], delays[n]
  }
  # Heap sort: mawk has no asort.
  function sort_numbers(a, n,    i, t) {
    for (i = int(n / 2); i >= 1; --i) sift(a, i, n)
    for (i = n; i > 1; --i) { t = a[1]; a[1] = a[i]; a[i] = t; sift(a, 1, i - 1) }
  }
  function sift(a, root, n,    child, t) {
    while ((child = 2 * root) <= n) {
      if (child < n && a[child] < a[child + 1]) ++child
      if (a[root] >= a[child]) return
      t = a[root]; a[root] = a[child]; a[child] = t
      root = child
    }
  }' heard
for pid in "${pids[@]}"; do
  awk '/^Private/ { kb += $2 } END { print kb }' "$pid/smaps_rollup"
done | sort -n | awk '{ kb[NR] = $1 } END { printf "private memory of a bridge: median %d KiB, max %d KiB\n", kb[int((NR + 1) / 2)], kb[NR] }'
for pid in "${pids[@]}"; do kill "${pid#/proc/}"; done
wait "${pids[@]#/proc/}" 2>/dev/null || true
