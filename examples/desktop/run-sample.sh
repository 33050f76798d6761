#!/usr/bin/env bash
# The desktop sample app against a fresh tessra-sandbox. `./run sample` builds first.
# In a desktop session the window opens; without a display it runs under Xvfb on a private
# session bus, writes its two screenshots to build-desktop/sample-pictures and quits.
set -euo pipefail
cd "$(dirname "$0")/../.."

bin=build-desktop/bin
who=sample
# shellcheck source=examples/sandbox.sh
. examples/sandbox.sh
require_built "$bin" './run sample' tessra-sandbox tessra-desktop-sample
work=$(mktemp -d "${TMPDIR:-/tmp}/tessra-sample-XXXXXX")
cleanup() {
  stop_sandbox
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start_sandbox "$bin" "$work/sandbox" "$work"
export TESSRA_HOME="$work/home"
echo "sandbox: https://$TESSRA_TRACKING_HOST and http://$TESSRA_AD_HOST"

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  "$bin/tessra-desktop-sample"
else
  pictures="$PWD/build-desktop/sample-pictures"
  rm -rf "$pictures"
  mkdir -p "$pictures"
  echo "No display: the sample runs under Xvfb and takes its screenshots"
  dbus-run-session -- xvfb-run -a -s "-screen 0 1024x768x24" "$bin/tessra-desktop-sample" --screenshot "$pictures"
  for picture in desktop-app.png desktop-interstitial.png; do
    if [ ! -s "$pictures/$picture" ]; then
      echo "sample: no $picture was written" >&2
      exit 1
    fi
  done
  echo "sample: pictures in $pictures (desktop-app.png, desktop-interstitial.png)"
fi
