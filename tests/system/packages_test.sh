#!/usr/bin/env bash
# packages_test.sh SOURCE BUILD: the Debian packages can be made, installed into a root of their own,
# used there to compile and run the README's daemon, and removed without leaving anything. The files
# that the recipes for other systems name exist.
set -euo pipefail
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
  PATH=$work/bin:$PATH dpkg --root="$root" --force-depends --force-script-chrootless --log=/dev/null "$@" >"$work/log" 2>&1 ||
    { cat "$work/log"; exit 1; }
}

cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/log" || { cat "$work/log"; exit 1; }
packages --install "$work"/packages/*.deb

awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/README.md" >"$work/hello.c"
export PKG_CONFIG_LIBDIR=$root/usr/lib/pkgconfig LD_LIBRARY_PATH=$root/usr/lib
# shellcheck disable=SC2046 # the flags are words
cc -std=c99 "$work/hello.c" $(pkg-config --cflags --libs libmsgapi) -Wl,-rpath-link,"$root/usr/lib" \
  -o "$work/hello"

cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(hello C)
find_package(msgapi REQUIRED)
add_executable(hello hello.c)
target_link_libraries(hello PRIVATE msgapi::msgapi)
CMAKE
cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$root/usr" >"$work/log"
cmake --build "$work/build" >"$work/log"

cp "$source/tools/with_servers.sh" "$root/usr/sbin/"
for hello in "$work/hello" "$work/build/hello"; do
  output=$("$root/usr/sbin/with_servers.sh" "$hello" 2>"$work/log") || status=$?
  [[ ${status:-0} == 5 && $output == *42* ]] ||
    { cat "$work/log"; echo "hello ended with ${status:-0} and printed: $output"; exit 1; }
done
rm "$root/usr/sbin/with_servers.sh"

there() {
  local name
  while read -r name; do
    [[ -e $1$name ]] || { echo "named in packaging/ but not there: $name"; exit 1; }
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
  grep -q "^$option:" "$build/CMakeCache.txt" || { echo "no such option: $option"; exit 1; }
done

# listed FILE PATTERN...: one of them fits it, or a directory that it is in
listed() {
  local file=$1 pattern
  shift
  for pattern; do
    # shellcheck disable=SC2053 # these are patterns
    [[ $file == $pattern || $file == $pattern/* ]] && return
  done
  echo "in no package of the recipe: $file"
  return 1
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
[[ -z $left ]] || { echo "left behind: $left"; exit 1; }
