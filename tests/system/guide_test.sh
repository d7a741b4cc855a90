#!/usr/bin/env bash
# guide_test.sh SOURCE BUILD: the guide's pages show its samples as they are, and every sample
# compiles as C and does what its page says. To be run with the servers.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")
guide=$source/docs/guide
work=/var/guide
mkdir "$work"

# A page says "<!-- sample: NAME -->" in front of a block, which is the file's text.
awk -v samples="$guide/samples/" '
  /^<!-- sample: / { name = $3; next }
  /^```c$/ { if (name == "") { print FILENAME ": code without a sample"; bad = 1 } inside = 1; next }
  /^```$/ && inside {
    while ((getline line < (samples name)) > 0) { print FILENAME ": " name " lacks: " line; bad = 1 }
    inside = 0; shown[name] = 1; name = ""; next
  }
  inside {
    if ((getline line < (samples name)) <= 0 || line != $0) {
      print FILENAME ": not in " name ": " $0; bad = 1; exit
    }
  }
  END { for (name in shown) print name > "/var/guide/shown"; exit bad }
' "$guide"/*.md || fail "pages and samples differ"
diff <(sort "$work/shown") <(cd "$guide/samples" && ls -- *.c) || fail "a sample is in no page"

for sample in "$guide"/samples/*.c; do
  name=$(basename "$sample" .c)
  cc -std=gnu99 -Wall -Wextra -Werror "$sample" -I"$source/include" -L"$build/lib" \
    -lmsgapi-kit -lmsgapi -lcjson -Wl,-rpath,"$build/lib" -Wl,-rpath-link,"$build/lib" -o "$work/$name"
done

eventually() {
  local tries
  for ((tries = 0; tries < 100; ++tries)); do
    "$@" && return
    sleep 0.1
  done
  fail "gave up on: $*"
}
says() { "$work/$1" >"$work/said" 2>&1 && grep -qx -- "$2" "$work/said"; }

says hello 42 || fail "hello"
"$build/bin/msgctl" serve 0x7001 --as clock --answer 0 --body hex:2a000000 -n 1 >"$work/mock" &
mock=$!
eventually says ask 'up for 42 s'
wait "$mock" || fail "the stand-in ends badly"
status=0 # before there is a clock
"$work/ask" 2>"$work/said" || status=$?
[[ $status == 1 && $(<"$work/said") == "ask: ORP_ERR_PEER_GONE: "* ]] || fail "ask, without a clock"
"$work/serve" &
clock=$!
trap 'kill $clock 2>/dev/null || true' EXIT
eventually says ask 'up for [0-9]* s'
curl -s --max-time 5 http://127.0.0.1:8080/clock/uptime | grep -qx '{"seconds": [0-9]*}' || fail "serve"
kill "$clock"
wait "$clock" || fail "serve ends badly"
timeout 10 "$work/events" | grep -qx 192.0.2.1 || fail "events"
"$work/loop" >"$work/said" || fail "loop"
diff "$work/said" - <<'SAID' || fail "loop"
tick
read x
signal 10
the child ended with 3, signal 0
SAID
"$work/restarts" >"$work/said" &
clock=$!
eventually grep -qx 'message server: here' "$work/said"
kill "$clock"
wait "$clock" || fail "restarts ends badly"
"$work/logs" || fail "logs"
"$build/bin/mlog" cat logs | grep -qF 'lease for 00:**:**:33:**:55 at 192.***.*.10' || fail "logs are not masked"
