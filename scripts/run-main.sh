#!/usr/bin/env bash
# Installs what is missing, builds the default preset and runs the main job:
# qs-host serving the module to browsers on 127.0.0.1, in the foreground.
# Its status page is http://127.0.0.1:18625/ (18993 when 18625 is taken);
# Ctrl-C stops it cleanly. Arguments go to qs-host (e.g. --port 0).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
# qs-host prints the status page's address and a curl example with the port
# it got.
# qs-host refuses to run as root; a throw-away machine where everything runs
# as root may still try it.
if [[ $(id -u) -eq 0 ]]; then
  echo "run-main: running as root; qs-host is meant to run as the desktop user" >&2
  set -- --allow-root "$@"
fi
exec ./build/default/host/qs-host "$@"
