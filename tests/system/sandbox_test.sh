#!/usr/bin/env bash
# sandbox_test.sh BIN: a command in the sandbox changes nothing outside, wherever the library's fixed
# paths lead, also when the machine is a chroot. The scripts that start servers on fixed paths refuse to
# do so elsewhere. A sandbox plays the machine, so that the real one is not at risk.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
bin=$(realpath "$1")
lib=$(realpath "$bin/../lib")

# Files at the fixed paths, and in the trees around them.
paths=(/var/{cfm/cfm.db,mlogfile/log,mlog/mlogcfg,run/msgsvr,run/msg/msg_file_1} /var/policy_custom/a
  /var/{msgsvr-login.json,image.bin,other/file} /mnt/{file,mlog/log,usb/file} /online/log/webapp.log
  /app/{config/a,webroot/a} /data/userdata/a /html/a /system/a)
# None of these may be real files.
for path in "${paths[@]}"; do [[ ! -e $path ]] || fail "$path is there already"; done
mkdir -p /var/{cfm,mlogfile,mlog,run/msg,run/notify,policy_custom,other,place} /mnt/{mlog,usb} \
  /online/log /app/{config,webroot} /data/userdata /html /system
for path in "${paths[@]}"; do echo "of the machine" >"$path"; done
state() { find "${paths[@]}" "${paths[@]%/*}" -maxdepth 1 -printf '%p %y %m %s %T@ %i\n' | sort -u; }
before=$(state)

# shellcheck disable=SC2016 # the inner shell's own
overwrite='for path; do mkdir -p "${path%/*}" && echo changed >"$path" || exit 1; done
  for path; do rm "$path" || exit 1; done; chmod 700 /var /var/cfm && ! test -w /var/lib'
"$bin/sandbox" -- sh -c "$overwrite" sh "${paths[@]}" || fail "the fixed paths cannot be written"
(cd /var/cfm && "$bin/sandbox" -- sh -c "$overwrite" sh "${paths[@]}") || fail "not from /var/cfm"
after=$(state)
[[ $after == "$before" ]] || fail "the machine changed: $(diff <(echo "$before") <(echo "$after"))"

# A working directory below /var is there in the sandbox.
cd /var/place
"$bin/sandbox" -- touch /var/place/made
[[ -f made ]] || fail "the working directory is not there"
cd /

[[ $("$bin/sandbox" -- $'/no/such\e[31m' 2>&1) == 'sandbox: /no/such\x1b[31m: No such file or directory' ]] ||
  fail "a command's name reaches the terminal as it is"

# The same in a chroot whose root is no mount.
root=/var/chroot
mkdir -p "$root"/{proc,tmp,var/cfm,mnt}
mirror "$root" bin etc lib lib32 lib64 sbin usr "${bin#/}" "${lib#/}"
echo "of the machine" >"$root/var/cfm/cfm.db"
# shellcheck disable=SC2016 # the inner shell's own
chroot "$root" "$bin/sandbox" -- sh -c '
  [ ! -e /var/cfm ] && mkdir /var/cfm && echo changed >/var/cfm/cfm.db && [ -e /proc/self/exe ] &&
  case $PATH in "$1":*) ;; *) exit 1 ;; esac' sh "$bin" || fail "no sandbox in a chroot"
[[ $(<"$root/var/cfm/cfm.db") == "of the machine" && -z $(ls "$root/tmp") ]] ||
  fail "the chroot changed"

mount -t proc proc "$root/proc"
chroot "$root" "$bin/sandbox" -- test ! -e /var/cfm || fail "no sandbox in a chroot with /proc"

# The scripts that start servers do not run where the fixed paths are the machine's.
for command in "with_servers.sh true" demo.sh; do
  status=0
  # shellcheck disable=SC2086 # words
  output=$(chroot "$root" "$bin"/$command 2>&1) || status=$?
  [[ $status == 2 && $output == *"not the sandbox"* ]] || fail "$command: $status, $output"
done

# Nor do captures stand in for an application there, unless that is meant. (There is none.)
for command in "replay none --to station" "mock none --as station"; do
  status=0 live=0
  # shellcheck disable=SC2086 # words
  output=$(chroot "$root" "$bin"/msgctl $command 2>&1) || status=$?
  # shellcheck disable=SC2086 # words
  chroot "$root" "$bin"/msgctl $command --live >"$log" 2>&1 || live=$?
  [[ $status == 7 && $output == *--live* && $live == 4 ]] || fail "$command: $status, $output; $live"
done

# A socket of the outer network works inside.
"$bin/sandbox" --listen 127.0.0.1:8970 -- "$bin/msginspect" --listen fd:3 >/var/address 2>/dev/null &
for ((i = 0; i < 250; ++i)); do
  grep -q http /var/address && break
  sleep 0.02
done
[[ $(curl -s "$(</var/address)v1/status") == *'"state":"waiting"'* ]] || fail "the socket does not work"
kill "$!"
wait "$!" || fail "the inspector ended with $?"
for where in 8970 127.0.0.1 127.0.0.1:0 127.0.0.1:65536 127.0.0.1:8970x localhost:8970; do
  status=0
  "$bin/sandbox" --listen "$where" -- true 2>/dev/null || status=$?
  [[ $status == 2 ]] || fail "--listen $where: status $status"
done
