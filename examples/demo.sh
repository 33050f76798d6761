#!/usr/bin/env bash
# Smoke tour until the sample host lands: runs the example host against the built SDK.
set -euo pipefail
cd "$(dirname "$0")/.."
export TESSRA_HOME="${TESSRA_HOME:-$(mktemp -d)}"
echo "TessraKite demo (TESSRA_HOME=$TESSRA_HOME)"
build/bin/tessra-smoke
