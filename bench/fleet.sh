#!/usr/bin/env bash
# fleet.sh [BRIDGES [SECONDS [EVENTS]]]: so many bridges on one broker of this machine, EVENTS a
# second published on their bus for SECONDS; prints what arrived, how long it took from the bridge's
# taking an event to the broker's subscriber, and what a bridge costs. In the sandbox, with the
# programs of one build first in PATH:
#
#   build/release/bin/sandbox -- bench/fleet.sh 200 120 25
#
# All bridges are on one bus, so each event goes up once for each of them. Needs mosquitto and
# mosquitto-clients.
set -euo pipefail
bridges=${1:-200} seconds=${2:-120} events=${3:-25}
[[ "$bridges $seconds $events" =~ ^[0-9]+\ [0-9]+\ [0-9]+$ ]] || {
  echo "usage: fleet.sh [BRIDGES [SECONDS [EVENTS]]]" >&2
  exit 2
}
export PATH=$PATH:/usr/sbin
for program in mosquitto mosquitto_sub msgsvr msgbridge msgctl; do
  command -v "$program" >/dev/null || {
    echo "fleet.sh: $program is missing" >&2
    exit 1
  }
done
# Nothing here may touch a bus that is in use.
[[ $(stat -f -c %T /var) == tmpfs ]] || {
  echo "fleet.sh: run it in the sandbox" >&2
  exit 1
}

work=$(mktemp -d /var/fleet.XXXXXX)
cd "$work"
ulimit -n 65536 2>/dev/null || ulimit -n "$(ulimit -Hn)"
printf 'user root\nlistener 1883 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n' >broker.conf
mosquitto -c broker.conf >broker.log 2>&1 &
# A bus of its own for each would be fairer to the bus; here its queues must hold for all.
msgsvr --user-subscriptions 65536 >bus.log 2>&1 &
until [[ -S /var/run/msgsvr ]]; do sleep 0.1; done

pids=()
for ((i = 1; i <= bridges; ++i)); do
  cat >"bridge$i.json" <<JSON
{"broker": {"addresses": ["mqtt://127.0.0.1"]}, "gateway": "gw-$i", "up": [{}],
 "spool": {"path": "$work/spool$i.db", "bytes": 262144}}
JSON
  msgbridge --config "bridge$i.json" >"bridge$i.log" 2>&1 &
  pids+=($!)
done
echo "waiting for $bridges bridges"
until (($(grep -l 'Connected to mqtt' bridge*.log | wc -l) == bridges)); do sleep 0.5; done

mosquitto_sub -V 5 -q 1 -t 'gw/+/event/#' -F '%U %P' >heard &
sub=$!
sleep 1
echo "publishing $events events a second for $seconds s"
published=0
start=$(date +%s%N)
while (($(date +%s%N) - start < seconds * 1000000000)); do
  msgctl publish wan Count number=$((++published)) >/dev/null
  due=$((start + published * 1000000000 / events))
  now=$(date +%s%N)
  ((due <= now)) || sleep "$(awk -v ns=$((due - now)) 'BEGIN { print ns / 1e9 }')"
done
took=$(($(date +%s%N) - start))
for ((tries = 0; tries < 100 && $(wc -l <heard) < published * bridges; ++tries)); do sleep 0.1; done
kill "$sub"

awk -v bridges="$bridges" -v published="$published" -v took="$took" '
  match($0, /time:[0-9]+/) {
    ms = $1 * 1000 - substr($0, RSTART + 5, RLENGTH - 5)
    delays[++n] = ms < 0 ? 0 : ms
  }
  END {
    printf "%d events on %d bridges: %d of %d arrived, %.0f a second\n", published, bridges, n,
      published * bridges, n / (took / 1e9)
    count = asort_numbers(delays, n)
    printf "from the bridge to the subscriber: median %.0f ms, p99 %.0f ms, max %.0f ms\n",
      delays[int((count + 1) / 2)], delays[int(count * 0.99 + 0.5)], delays[count]
  }
  # Heap sort: mawk has no asort.
  function asort_numbers(a, n,    i, t) {
    for (i = int(n / 2); i >= 1; --i) sift(a, i, n)
    for (i = n; i > 1; --i) { t = a[1]; a[1] = a[i]; a[i] = t; sift(a, 1, i - 1) }
    return n
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
  awk '/^Private/ { kb += $2 } END { print kb }' "/proc/$pid/smaps_rollup"
done | sort -n | awk '{ kb[NR] = $1 } END { printf "private memory of a bridge: median %d KiB, max %d KiB\n", kb[int((NR + 1) / 2)], kb[NR] }'
kill "${pids[@]}"
wait "${pids[@]}" 2>/dev/null || true
