#!/usr/bin/env bash
# The demo, to be run inside the sandbox with the servers running: starts the daemons and shows
# what they say to each other. The exit status is 0 when everything went as it should.
set -euo pipefail
bin=$(dirname "$0")

title() { printf '\n== %s\n' "$*"; }

title "two daemons, a station and a panel"
"$bin/demo_station" &
station=$!
"$bin/demo_panel"
kill "$station"

title "what they logged, with personal data masked"
"$bin/mlog" cat
"$bin/mlog" cat cms | grep -qF '00:**:**:33:**:55 at 192.***.*.10 and *'

title "every request was answered and every notification arrived"
