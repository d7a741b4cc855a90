#!/bin/sh
# emulated.sh SANDBOX EMULATOR... PROGRAM [ARGUMENT...]: runs a test program under emulation in the
# sandbox, except for the cases in emulation_skips.txt, which it reports as skipped.
set -eu

for argument; do
  case $argument in
  --gtest_filter=*)
    while read -r name reason; do
      if [ "$name" = "${argument#*=}" ]; then
        echo "[  SKIPPED ] $name: $reason"
        exit 0
      fi
    done <"$(dirname "$0")/emulation_skips.txt"
    ;;
  esac
done

sandbox=$1
shift
exec "$sandbox" -- "$@"
