#!/usr/bin/env bash
# Installs what is missing, builds the default preset and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
exec ./build/default/demo/qs-demo "$@"
