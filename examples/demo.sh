#!/usr/bin/env bash
# The demo tour: starts tessra-sandbox, plays examples/tour.jsonl through tessra-host on a
# fresh TESSRA_HOME, and narrates it (examples/narrate.py). `./run demo` builds first.
# TESSRA_DEMO_KEEP=1 keeps the work folder (sandbox state, request log, TESSRA_HOME).
set -euo pipefail
cd "$(dirname "$0")/.."

bin=build/bin
who=demo
# shellcheck source=examples/sandbox.sh
. examples/sandbox.sh
require_built "$bin" './run demo' tessra-sandbox tessra-host tessra-defaults
work=$(mktemp -d "${TMPDIR:-/tmp}/tessra-demo-XXXXXX")
narrator_pid=""

cleanup() {
  if [ -n "$narrator_pid" ]; then
    # It ends its hosts when told to stop.
    kill -TERM "$narrator_pid" 2>/dev/null || true
    wait "$narrator_pid" 2>/dev/null || true
  fi
  stop_sandbox
  if [ "${TESSRA_DEMO_KEEP:-}" = 1 ]; then
    echo "demo: kept $work"
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start_sandbox "$bin" "$work/sandbox" "$work"

# The pictures the tour draws stay after the run.
export TESSRA_DEMO_PICTURES="$PWD/build/demo-pictures"
mkdir -p "$TESSRA_DEMO_PICTURES"

echo "TessraKite demo tour"
echo "   sandbox: https://$TESSRA_TRACKING_HOST (tracking, configuration) and http://$TESSRA_AD_HOST (ads, crash uploads)"
echo "   TESSRA_HOME: $work/home"

# In the background so that a stop signal reaches the traps at once, not after the tour.
python3 examples/narrate.py --bin "$bin" --tour examples/tour.jsonl \
  --requests "$work/sandbox/requests.jsonl" --home "$work/home" --sandbox-pid "$sandbox_pid" &
narrator_pid=$!
status=0
wait "$narrator_pid" || status=$?
narrator_pid=""
exit "$status"
