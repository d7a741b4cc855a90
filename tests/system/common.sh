# What the scripts here have in common; sourced by them.
# shellcheck shell=bash

# Where the last program's output is, for fail().
log=/var/log/${0##*/}.log

fail() {
  [[ ! -e $log ]] || cat "$log"
  echo "${0##*/}: $*"
  exit 1
}

# mirror ROOT NAME...: gives another root these directories of this one; links stay links
mirror() {
  local root=$1 name
  shift
  for name; do
    if [[ -L /$name ]]; then
      cp -P "/$name" "$root/$name"
    elif [[ -d /$name ]]; then
      mkdir -p "$root/$name"
      mount --rbind "/$name" "$root/$name"
    fi
  done
}

# The README's daemon
readme_code() {
  awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$1/README.md"
}

# daemon_runs DIRECTORY DAEMON: it does with the servers of the directory what the README says
daemon_runs() {
  local output status=0
  output=$("$1/with_servers.sh" "$2" 2>"$log") || status=$?
  # It ends with the low byte of "nothing came for 100 ms".
  [[ $status == 5 && $output == *42* ]] || fail "$2 ended with $status and printed: $output"
}

# daemon_builds SOURCE PREFIX WORK FLAG...: what is installed below PREFIX compiles the README's daemon
# with pkg-config's flags and these, and with the CMake package, and runs both
daemon_builds() {
  local source=$1 prefix=$2 work=$3
  shift 3
  rm -rf "$work"
  mkdir "$work"
  readme_code "$source" >"$work/hello.c"
  # shellcheck disable=SC2046 # the flags are words
  cc -std=c99 "$work/hello.c" $(pkg-config --cflags --libs libmsgapi) "$@" -o "$work/hello" 2>"$log" ||
    fail "pkg-config's flags for $prefix do not do"
  cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(hello C)
find_package(msgapi REQUIRED)
add_executable(hello hello.c)
target_link_libraries(hello PRIVATE msgapi::msgapi)
CMAKE
  { cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" && cmake --build "$work/build"; } \
    >"$log" 2>&1 || fail "the CMake package in $prefix does not do"
  # The script runs the servers in its own directory.
  cp "$source/tools/with_servers.sh" "$prefix/sbin/"
  daemon_runs "$prefix/sbin" "$work/hello"
  daemon_runs "$prefix/sbin" "$work/build/hello"
  rm "$prefix/sbin/with_servers.sh"
}
