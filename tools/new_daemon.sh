#!/usr/bin/env bash
# new_daemon.sh NAME [DIRECTORY]: `--help` says what it does.
set -euo pipefail
template=$(realpath "$(dirname "$0")/../examples/template")

usage() {
  cat <<'HELP'
usage: new_daemon.sh NAME [DIRECTORY]
Makes a small working daemon called NAME in DIRECTORY (NAME, below the current one), which must not
be there yet: sources, CMake, a systemd unit, a procd script and a test, to start from.
HELP
}
case "${1:-} $#" in
  "--help 1") usage && exit ;;
  *" 1" | *" 2") ;;
  *) usage >&2 && exit 2 ;;
esac
name=$1 directory=${2:-$1}
# The name becomes that of an application, of files and of a build target.
if [[ ! $name =~ ^[a-z][a-z0-9_]{0,10}$ || $name == test ]]; then
  echo "new_daemon: '$name' cannot be an application's name: up to 11 of a-z, 0-9 and _, a letter" \
    "first, and not 'test'" >&2
  exit 2
fi
mkdir -p "$(dirname "$directory")"
if ! mkdir "$directory"; then
  echo "new_daemon: choose a directory that is not there yet" >&2
  exit 1
fi

for file in "$template"/*; do
  to=${file##*/}
  case $to in
    header.h) to=$name.h ;;
    daemon.*) to=$name.${to#daemon.} ;;
  esac
  sed "s/@NAME@/$name/g" "$file" >"$directory/$to"
done
chmod +x "$directory/$name.init"
echo "$directory holds a daemon that answers requests; its README.md says how to build and test it"
