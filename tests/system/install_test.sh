#!/usr/bin/env bash
# install_test.sh SOURCE BUILD: what `cmake --install` installs works at once: the programs, a program
# built with pkg-config's flags, and one built with the CMake package. (The packages' test shows the
# same below /usr.)
set -euo pipefail
source=$(realpath "$1")
build=$(realpath "$2")
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

fail() {
  cat /var/install.log
  echo "$*"
  exit 1
}

work=/var/install
mkdir "$work"
awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/README.md" >"$work/hello.c"
cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(hello C)
find_package(msgapi REQUIRED)
add_executable(hello hello.c)
target_link_libraries(hello PRIVATE msgapi::msgapi)
CMAKE

# The machine's own /usr/local must not change.
mount -t tmpfs install /usr/local
for prefix in /usr/local /var/private/prefix; do
  cmake --install "$build" --prefix "$prefix" >/var/install.log || fail "not installed in $prefix"

  for program in sbin/msgsvr sbin/msgbridge sbin/notifyserver sbin/mlogserver bin/mlog bin/cfmctl bin/msgctl bin/msginspect; do
    said=$("$prefix/$program" --version 2>&1) || fail "$prefix/$program: $said"
    [[ $said == "${program#*/} "[0-9]* ]] || fail "$prefix/$program --version: $said"
  done

  # pkg-config looks below /usr/local by itself.
  [[ $prefix == /usr/local ]] || export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  # shellcheck disable=SC2046 # the flags are words
  cc -std=c99 "$work/hello.c" $(pkg-config --cflags --libs libmsgapi) -o "$work/by_pkg_config" \
    2>/var/install.log || fail "pkg-config's flags for $prefix do not work"
  rm -rf "$work/build"
  { cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" &&
    cmake --build "$work/build"; } >/var/install.log 2>&1 || fail "CMake's package in $prefix"

  # The script runs the servers in its own directory.
  cp "$build/bin/with_servers.sh" "$prefix/sbin/"
  for hello in "$work/by_pkg_config" "$work/build/hello"; do
    ldd "$hello" >/var/install.log
    grep -q "libmsgapi.so.1 => $prefix/" <(sed 's#[^/]*/\.\./##g; s#[^/]*/\.\./##g' /var/install.log) ||
      fail "$hello does not find the library in $prefix"
    output=$("$prefix/sbin/with_servers.sh" "$hello" 2>/var/install.log) && status=0 || status=$?
    [[ $status == 5 && $output == *42* ]] || fail "$hello ended with $status and printed: $output"
  done
done
