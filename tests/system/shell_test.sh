#!/usr/bin/env bash
# shell_test.sh SHELL: what a command finds in the developers' shell, and what comes back from it.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
shell=$1

output=$("$shell" --http 8099 bash -c '
  curl -s -o /dev/null -w "%{http_code} " http://127.0.0.1:8099/dev/info
  cfmctl get 0x61A11703
  echo of the command >&2
  exit 7' 2>&1) && status=0 || status=$?
# No handler is registered, the store has its defaults, and the servers' lines are not printed.
expected=$'404 3\nof the command'
[[ $status == 7 && $output == "$expected" ]] || fail "status $status, output: $output"
grep -q 'msgsvr.* ready' /var/log/servers.log || fail "the servers' own lines are lost"

# shellcheck disable=SC2016 # the shell under test expands it
output=$(echo 'echo "in $PS1"; cfmctl objects | wc -l' | "$shell" 2>/dev/null)
[[ $output == *"in (msgapi sandbox)"*2* ]] || fail "the interactive shell said: $output"

# shellcheck disable=SC2016 # the shell under test expands it
output=$("$shell" --inspect --http 8098 bash -c '
  for ((i = 0; i < 100; ++i)); do # the recorder that it finds may be the last server'\''s
    status=$(curl -s "${INSPECTOR}v1/status")
    [[ $status == *\"state\":\"live\"* ]] && break
    sleep 0.1
  done
  echo "$status"' 2>/dev/null)
[[ $output == *'"state":"live"'* ]] || fail "the inspector said: $output"
"$shell" --bogus true 2>/dev/null && fail "an option that is none is taken"

for port in 0 65536 http ''; do
  status=0
  "$shell" --http "$port" true 2>/dev/null || status=$?
  [[ $status == 2 ]] || fail "port '$port': status $status"
done
