#!/usr/bin/env bash
# packages_test.sh SOURCE BUILD: the Debian packages can be made, installed into a root of their own,
# used there to compile and run the README's daemon, and removed without leaving anything. The files
# that the recipes for other systems name exist.
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info"
: >"$root/var/lib/dpkg/status"
# The packages' scripts would renew the machine's own cache of libraries.
mkdir "$work/bin"
ln -s /bin/true "$work/bin/ldconfig"
packages() {
  PATH=$work/bin:$PATH dpkg --root="$root" --force-depends --force-script-chrootless --log=/dev/null "$@" >"$log" 2>&1 ||
    fail "dpkg $1 fails"
}

cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$log" || fail "no packages are made"
packages --install "$work"/packages/*.deb

export PKG_CONFIG_LIBDIR=$root/usr/lib/pkgconfig LD_LIBRARY_PATH=$root/usr/lib
daemon_builds "$source" "$root/usr" "$work/daemon" -Wl,-rpath-link,"$root/usr/lib"

there() {
  local name
  while read -r name; do
    [[ -e $1$name ]] || fail "named in packaging/ but not there: $name"
  done
}
cd "$source"
grep -hoP '\$\(PKG_BUILD_DIR\)/\K\S+' packaging/openwrt/Makefile | there ./
grep -hoE '[a-z]+\.service' packaging/yocto/*.bb | there "$root/usr/lib/systemd/system/"
printf '%s\n' sysusers.d/msgapi.conf tmpfiles.d/msgapi.conf systemd/system/var-run.mount |
  there "$root/usr/lib/"
grep -hoP '\$\{datadir\}/\K[\w-]+' packaging/yocto/*.bb | there "$root/usr/share/"
grep -hoE '/usr/sbin/[a-z]+' packaging/systemd/* packaging/procd/* | there "$root"
grep -rhoP -- '-D\KMSGAPI_[A-Z_]+' packaging docs/packaging.md | while read -r option; do
  grep -q "^$option:" "$build/CMakeCache.txt" || fail "no such option: $option"
done

# listed FILE PATTERN...: one of them fits it, or a directory that it is in
listed() {
  local file=$1 pattern
  shift
  for pattern; do
    # shellcheck disable=SC2053 # these are patterns
    [[ $file == $pattern || $file == $pattern/* ]] && return
  done
  fail "in no package of the recipe: $file"
}
mapfile -t patterns < <(grep -hoP '\$\(PKG_INSTALL_DIR\)\K/usr/s?bin/\S+' packaging/openwrt/Makefile)
for program in "$root"/usr/{sbin,bin}/*; do listed "${program#"$root"}" "${patterns[@]}"; done
mapfile -t patterns < <(grep -hoP '\$\(PKG_BUILD_DIR\)/\K\S+' packaging/openwrt/Makefile)
for script in packaging/procd/*; do listed "$script" "${patterns[@]}"; done
mapfile -t patterns < <(grep -hoE '[a-z]+\.service' packaging/yocto/*.bb)
for unit in "$root"/usr/lib/systemd/system/*.service; do listed "${unit##*/}" "${patterns[@]}"; done
# What the recipe says, and what Yocto takes into the other packages by itself.
# shellcheck disable=SC2016 # the recipe's variables
read -ra patterns < <(tr -d '\\\n' <"$(echo packaging/yocto/*.bb)" | grep -oP 'FILES\S+ = "\K[^"]+' |
  sed 's|${sbindir}|/usr/sbin|g; s|${bindir}|/usr/bin|g; s|${libdir}|/usr/lib|g; s|${prefix}|/usr|g
    s|${datadir}|/usr/share|g; s|${systemd_system_unitdir}|/usr/lib/systemd/system|g')
patterns+=('/usr/lib/lib*' /usr/lib/{pkgconfig,cmake} /usr/include /usr/share/man)
while read -r file; do listed "$file" "${patterns[@]}"; done < <(cd "$root" && find usr -type f -printf '/%p\n')

packages --purge libmsgapi1 libmsgapi-dev msgapi-servers
"$source/tests/system/bare_root.sh" "$source" "$build" "$work/packages"
left=$(find "$root" -path "$root/var" -prune -o -type f -print)
[[ -z $left ]] || fail "left behind: $left"
