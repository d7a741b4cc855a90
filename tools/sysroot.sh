#!/usr/bin/env bash
# sysroot.sh ARCHITECTURE DIRECTORY: unpacks the Debian packages of an architecture (armhf, i386) that
# building and running the project needs, with a package database of its own: the machine's packages
# and their lists are not touched.
set -euo pipefail

(($# == 2)) || {
  echo "usage: sysroot.sh ARCHITECTURE DIRECTORY" >&2
  exit 2
}
architecture=$1
sysroot=$2

# Unpacked with everything that they depend on.
readonly runtime=(libc6 libcjson1 libcurl4 libfmt9 libmicrohttpd12 libmosquitto1 libsodium23 libsqlite3-0 libstdc++6)
# Unpacked alone: the compiler brings its own headers of the C library.
readonly development=(
  libcjson-dev libcli11-dev libcurl4-openssl-dev libfmt-dev libgmock-dev libgtest-dev
  libmicrohttpd-dev libmosquitto-dev libseccomp-dev libsodium-dev libsqlite3-dev nlohmann-json3-dev
)

stamp=$sysroot/.packages
wanted="${runtime[*]} ${development[*]}"
[[ -f $stamp && $(<"$stamp") == "$wanted" ]] && exit 0

rm -rf "$sysroot"
database=$sysroot/.apt
mkdir -p "$database/lists/partial" "$database/archives/partial"
: >"$database/status"
options=(
  -qq -y --no-install-recommends -o Acquire::Retries=3 -o Acquire::http::Timeout=30
  -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture" -o APT::Sandbox::User=
  -o "Dir::State::status=$database/status" -o "Dir::State::lists=$database/lists"
  -o "Dir::Cache=$database" -o "Dir::Cache::archives=$database/archives" -o Debug::NoLocking=true
)
fail() {
  echo "sysroot: the $architecture packages could not be fetched ($1); is a Debian mirror reachable?" >&2
  exit 1
}
fetch() { timeout 240 apt-get "${options[@]}" "$@"; }

# A mirror may lack the lists of one suite for a while; the others hold every package.
fetch update || echo "sysroot: some package lists are missing" >&2
fetch install --download-only "${runtime[@]}" >/dev/null || fail "${runtime[*]}"
(cd "$database/archives" && fetch download "${development[@]}" >/dev/null) ||
  fail "${development[*]}"
for package in "$database"/archives/*.deb; do
  dpkg-deb -x "$package" "$sysroot"
done
rm -rf "$database"
printf '%s' "$wanted" >"$stamp"
