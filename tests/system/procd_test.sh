#!/usr/bin/env bash
# procd_test.sh SOURCE: the init script that runs before the servers', on a root like OpenWrt's, where
# /var is a link to /tmp and /tmp has a directory run. The script makes a path without links for
# hand-over files, the group, and the shared directories: however often it runs, whatever was there,
# and after a restart of the system, which keeps the root's files but none of its mounts.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
root=/var/router

mkdir -p "$root"/{etc,tmp/run}
mirror "$root" bin lib lib32 lib64 sbin usr proc
echo 'root:x:0:' >"$root/etc/group"
ln -s tmp "$root/var"
echo kept >"$root/var/run/other"
cp "$source/packaging/procd/msgapi.init" "$root/etc/init"
# The functions that rc.common gives a script.
cat >"$root/etc/functions" <<'SH'
group_exists() { grep -q "^$1:" /etc/group; }
group_add_next() { echo "$1:x:65531:" >>/etc/group; }
logger() { echo "logged: $*"; }
SH

for time in first second restarted; do
  if [[ $time == restarted ]]; then
    umount -R "$root/var"
    rm -r "$root/tmp" && mkdir -p "$root/tmp/run"
    echo kept >"$root/tmp/run/other"
  fi
  said=$(chroot "$root" sh -c '. /etc/functions; . /etc/init; start' 2>&1) || fail "$time: $said"
  [[ -z $said ]] || fail "$time: $said"
  [[ $(chroot "$root" readlink -f /var/run/msg) == /var/run/msg ]] || fail "$time: a link is on the way"
  [[ $(<"$root/tmp/run/other") == kept && $(<"$root/var/run/other") == kept ]] || fail "$time: files are lost"
  modes=$(stat -c '%a %g' "$root"/var/{run/msg,run/notify,mlog} | tr '\n' ' ')
  [[ $modes == "1770 65531 2770 65531 2770 65531 " ]] || fail "$time: $modes"
  [[ $(grep -c '^msgapi:' "$root/etc/group") == 1 ]] || fail "$time: the group"
done
