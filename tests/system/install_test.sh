#!/usr/bin/env bash
# install_test.sh SOURCE BUILD: what `cmake --install` installs works at once: the programs, a program
# built with pkg-config's flags, and one built with the CMake package. (The packages' test shows the
# same below /usr.)
set -euo pipefail
# shellcheck source=tests/system/common.sh
. "${0%/*}/common.sh"
source=$(realpath "$1")
build=$(realpath "$2")
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

# The machine's own /usr/local must not change.
mount -t tmpfs install /usr/local
for prefix in /usr/local /var/private/prefix; do
  cmake --install "$build" --prefix "$prefix" >"$log" || fail "not installed in $prefix"

  for program in sbin/msgsvr sbin/msgbridge sbin/notifyserver sbin/mlogserver bin/mlog bin/cfmctl bin/msgctl bin/msginspect; do
    said=$("$prefix/$program" --version 2>&1) || fail "$prefix/$program: $said"
    [[ $said == "${program#*/} "[0-9]* ]] || fail "$prefix/$program --version: $said"
  done

  # pkg-config looks below /usr/local by itself.
  [[ $prefix == /usr/local ]] || export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  daemon_builds "$source" "$prefix" /var/install
  for daemon in /var/install/{,build/}hello; do
    ldd "$daemon" >"$log"
    grep -q "libmsgapi.so.1 => $prefix/" <(sed 's#[^/]*/\.\./##g; s#[^/]*/\.\./##g' "$log") ||
      fail "$daemon does not find the library in $prefix"
  done
done
