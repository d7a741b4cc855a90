#!/usr/bin/env bash
# driver_test.sh BUILD: the driver fails when it has tested nothing.
set -euo pipefail
build=$(realpath "$1")

fail() {
  echo "driver_test: $*"
  exit 1
}
# expect_failure TEXT WORD...: the driver in /var/place, beside programs and shim, must fail with TEXT
expect_failure() {
  local text=$1 got=0
  shift
  timeout 60 /var/place/bin/torture "$@" >/var/output 2>&1 || got=$?
  [[ $got == 1 ]] || fail "$* ended with $got: $(</var/output)"
  grep -qF -- "$text" /var/output || fail "$* says $(</var/output)"
}

mkdir -p /var/place/{bin,lib}
cp "$build/bin/torture" /var/place/bin/
shim=/var/place/lib/libtorture_shim.so

expect_failure "$shim cannot be loaded" text
echo 'no library' >$shim
expect_failure "$shim cannot be loaded" text

cp "$build/lib/libtorture_idle_shim.so" $shim
expect_failure 'no call has failed' --points 1 text

# A server that gives up must say so with its exit status.
cp "$build/lib/libtorture_shim.so" $shim
printf '#!/bin/sh\n%q/bin/mlogserver --no-such-option 2>/dev/null\nexit 0\n' "$build" \
  >/var/place/bin/mlogserver
chmod +x /var/place/bin/mlogserver
expect_failure 'at its start: exit status 0' --points 1 mlogserver.start
expect_failure 'does not serve before anything has failed' --points 1 mlogserver.log
