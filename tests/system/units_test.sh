#!/usr/bin/env bash
# units_test.sh SOURCE: systemd itself checks the packages' units, without running them.
set -euo pipefail
source=$(realpath "$1")

if ! command -v systemd-analyze >/dev/null || ! systemd-analyze security --help | grep -q -- --offline; then
  echo "no systemd-analyze that looks at units offline"
  exit 77
fi
for unit in "$source"/packaging/systemd/*.service; do
  report=$(systemd-analyze security --offline=true --no-pager "$unit" 2>&1) || {
    echo "$report"
    exit 1
  }
  exposure=$(sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p' <<<"$report")
  if ! awk -v e="${exposure:-10}" 'BEGIN { exit !(e < 2.5) }'; then
    echo "$report"
    echo "${unit##*/}: the exposure level $exposure is not below 2.5"
    exit 1
  fi
  # For systemd a misspelt name is only a warning.
  if grep -iE 'unknown|failed to parse|ignoring' <<<"$report"; then
    echo "${unit##*/}: see above"
    exit 1
  fi
done
