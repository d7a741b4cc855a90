#!/usr/bin/env bash
# users_test.sh SOURCE BUILD: two ordinary users, members of one group, send each other bodies in
# hand-over files, with the directories that the packages make.
set -euo pipefail
source=$(realpath "$1")
build=$(realpath "$2")
readonly sender=65533 receiver=65532 members=65531

if ! awk '$1 <= 65532 && $1 + $3 > 65533 { found = 1 } END { exit !found }' /proc/self/uid_map; then
  echo "an ordinary user's sandbox has no other users"
  exit 77
fi
fail() {
  cat /var/log/servers.log
  echo "$*"
  exit 1
}

# Does what systemd-tmpfiles would do with the packages' file, with a group of ours.
while read -r kind path mode _; do
  [[ $kind == d ]] && install -d -g "$members" -m "$mode" "${path/#\/run//var/run}"
done <"$source/packaging/systemd/msgapi.tmpfiles"

cc -std=c99 -I"$source/include" "$source/tests/system/large_body.c" -L"$build/lib" -lmsgapi -Wl,-rpath,"$build/lib" -o /var/large

# In a subshell, which becomes the command.
as() { exec setpriv --reuid="$1" --regid="$1" --groups="$members" "${@:2}"; }
export -f as
export sender receiver members
# shellcheck disable=SC2016 # expanded inside
output=$("$build/bin/with_servers.sh" bash -euc '
  as "$receiver" /var/large serve &
  for ((tries = 0; tries < 200; ++tries)); do
    (as "$sender" /var/large send) && break
    sleep 0.1
  done
  kill "$!"
  ls /var/run/msg' 2>/var/log/servers.log) || fail "it failed after: $output"
[[ $output == *"65536 sevens" ]] || fail "printed (and left behind): $output"
