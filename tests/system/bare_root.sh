#!/usr/bin/env bash
# bare_root.sh SOURCE BUILD PACKAGES: dpkg installs the Debian packages into a root that has only a
# shell and what they need. Then two users of the group msgapi can pass bodies through hand-over files,
# even if /var/run was a link before. When the packages are removed, the link is there again. (Part of
# packages_test.sh, in the sandbox.)
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")
packages=$(realpath "$3")
readonly sender=65533 receiver=65532

if ! awk '$1 <= 65532 && $1 + $3 > 65533 { found = 1 } END { exit !found }' /proc/self/uid_map; then
  echo "bare_root: skipped, because an ordinary user's sandbox has no other users"
  exit 0
fi
root=/var/bare
servers=()
end() {
  ((!${#servers[@]})) || kill "${servers[@]}" 2>/dev/null || true
  wait
}
trap end EXIT

# The programs that dpkg's scripts run, and the libraries of other packages.
mkdir -p "$root"/{dev,etc,proc,run,tmp,usr,var/lib/dpkg/{updates,info}}
for directory in bin sbin lib lib32 lib64; do
  if [[ -L /$directory ]]; then
    mkdir -p "$root/usr/$directory"
    cp -P "/$directory" "$root/$directory"
  fi
done
copy() {
  local file
  for file in "$@" $(ldd "$@" 2>/dev/null | grep -oE '/[^ :]+' | sort -u); do
    [[ $file == "$build"/* || -e $root$file ]] || install -D "$file" "$root$file"
  done
}
copy /bin/sh
for program in cat chgrp getent groupadd install ischroot ldconfig ln mkdir mount mountpoint mv \
  readlink rm rmdir umount useradd; do
  copy "$(command -v "$program")"
done
copy "$build"/bin/{msgsvr,notifyserver,mlogserver,msgctl,mlog,cfmctl} "$build"/lib/lib*.so.*
: >"$root/var/lib/dpkg/status"
echo 'root:x:0:0:root:/:/bin/sh' >"$root/etc/passwd"
echo 'root:x:0:' >"$root/etc/group"
cp /etc/login.defs "$root/etc/"
: >"$root/dev/null"
mount --bind /dev/null "$root/dev/null"
mount --bind /proc "$root/proc"
cc -std=c99 -I"$source/include" "$source/tests/system/large_body.c" -L"$build/lib" -lmsgapi \
  -Wl,-rpath-link,"$build/lib" -o "$root/usr/bin/large"

# The modes that the script has made are those that systemd would make by the packages' file.
has_modes() {
  local kind path mode
  while read -r kind path mode _; do
    [[ $kind != d || $(stat -c %a "$root${path/#\/run//var/run}") == "$mode" ]] || fail "$path has other modes"
  done <"$source/packaging/systemd/msgapi.tmpfiles"
}
passes_a_body() {
  local group output tries ready=
  group=$(awk -F: '$1 == "msgapi" { print $3 }' "$root/etc/group")
  [[ -n $group ]] || fail "there is no group"
  [[ $(stat -c %g "$root"/var/{run/msg,run/notify,mlog} | uniq) == "$group" ]] || fail "other groups"
  as() { exec chroot --userspec="$1:$1" --groups="$group" "$root" "${@:2}"; }
  chroot "$root" msgsvr >"$log" 2>&1 &
  servers=($!)
  for ((tries = 0; tries < 1000; ++tries)); do
    grep -q ready "$log" && ready=1 && break
    sleep 0.05
  done
  [[ -n $ready ]] || fail "msgsvr does not start"
  grep -q 'receivers refuse' "$log" && fail "msgsvr sees a link"
  as "$receiver" large serve >/dev/null 2>&1 &
  servers+=($!)
  for ((tries = 0; tries < 200; ++tries)); do
    output=$( (as "$sender" large send) 2>>"$log") && break
    sleep 0.2
  done
  [[ $output == *"65536 sevens" ]] || fail "the body did not arrive: $output"
  [[ -z $(ls -A "$root/var/run/msg") ]] || fail "left behind: $(ls "$root/var/run/msg")"
  end
  servers=()
}
with_dpkg() {
  dpkg --root="$root" --force-depends --log=/dev/null "$@" >"$log" 2>&1 || fail "dpkg $1 fails"
}

# In a chroot, as when an image is made, and as on a running system.
for kind in image system; do
  rm -rf "$root/var/run"
  ln -s /run "$root/var/run"
  if [[ $kind == system ]]; then
    copy /usr/bin/false
    ln -sf false "$root/usr/bin/ischroot"
  fi
  with_dpkg --install "$packages"/*.deb
  [[ -d $root/var/run && ! -L $root/var/run ]] || fail "$kind: /var/run is a link still"
  if [[ $kind == system ]]; then
    [[ -d $root/run/msg ]] || fail "/var/run is not what /run is"
  fi
  has_modes
  passes_a_body
  rm -f "$root/var/run"/msgsvr*
  with_dpkg --purge libmsgapi1 libmsgapi-dev msgapi-servers
  [[ $(readlink "$root/var/run") == /run ]] || fail "$kind: /var/run is no link again"
done
