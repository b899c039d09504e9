#!/usr/bin/env bash
# Installs what is missing, builds zor_play and runs it with the given options
# (for example: scripts/run.sh -i). When no JACK server is reachable, a dummy
# one (48 kHz, 1024-frame periods, 8 capture and 8 playback ports) is started
# for the run and stopped afterwards.
set -euo pipefail
source "$(dirname "$0")/common.sh"

"$ZP_ROOT/scripts/install-deps.sh"
echo "Building zor_play in $ZP_ROOT/build/default"
zp_build default "" zor_play >/dev/null
zp_raise_queue_depth

jack_pid=""
server_name=${JACK_DEFAULT_SERVER:-default}
if ! jack_wait -s "$server_name" -c 2>/dev/null | grep -qx running; then
  echo "No JACK server '$server_name' running: starting a dummy one."
  jackd -n "$server_name" -d dummy -r 48000 -p 1024 -C 8 -P 8 >"$ZP_ROOT/build/jackd.log" 2>&1 &
  jack_pid=$!
  trap '[ -n "$jack_pid" ] && kill "$jack_pid" 2>/dev/null; wait 2>/dev/null || true' EXIT
  jack_wait -s "$server_name" -w -t 10 >/dev/null 2>&1
fi

export JACK_DEFAULT_SERVER="$server_name"
"$ZP_ROOT/build/default/zor_play" "$@"
