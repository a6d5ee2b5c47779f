#!/usr/bin/env bash
# The host's load figure: wrk against one qs-host on loopback, first on the
# host's fixed answer (/host/bench: the same HTTP path and answer delivery,
# no module call), then on the module's VersionInfo command (/kxp/), with
# keep-alive connections and the same POST body. Prints requests/s and p99
# latency of both and the ratio module / fixed.
#
#   bash host/host_load.sh [BUILD_FOLDER]      (default: build/default)
#
# DURATION (10s), CONNECTIONS (8), WRK_THREADS (1) and HOST_THREADS (qs-host's
# default: one per core) may be set in the environment. Traffic goes to 127.0.0.1 only and each wrk run
# ends by itself after DURATION.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/default}
duration=${DURATION:-10s}
connections=${CONNECTIONS:-8}
wrk_threads=${WRK_THREADS:-1}
host_threads=${HOST_THREADS:-}

bash scripts/install-deps.sh wrk curl
[[ -x $build/host/qs-host && -f $build/host/libFVASManager.so ]] ||
  { echo "host_load: build qs-host first (cmake --build --preset default --target qs-host)" >&2; exit 1; }

# The module's work folder is the executable's folder: a fresh one.
work=$(mktemp -d /tmp/qs_host_load_XXXXXX)
cp "$build/host/qs-host" "$build/host/libFVASManager.so" "$work/"
root=""
[[ $(id -u) -ne 0 ]] || root="--allow-root"
"$work/qs-host" --port 0 --bench-route $root ${host_threads:+--threads "$host_threads"} >"$work/host.out" 2>&1 &
host_pid=$!
cleanup() {
  kill -TERM "$host_pid" 2>/dev/null || true
  wait "$host_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=""
for _ in $(seq 100); do
  port=$(sed -n 's|^listening on http://127.0.0.1:\([0-9]*\)/$|\1|p' "$work/host.out")
  [[ -n $port ]] && break
  sleep 0.1
done
[[ -n $port ]] || { cat "$work/host.out" >&2; echo "host_load: qs-host did not start" >&2; exit 1; }

body='{"id":"1","cmdId":"load","method":"VersionInfo"}'
cat >"$work/post.lua" <<EOF
wrk.method = "POST"
wrk.body = '$body'
wrk.headers["Content-Type"] = "application/json"
EOF

# Both targets answer before the figures are taken.
check() {
  local answer
  answer=$(curl -s -A host_load -d "$body" "http://127.0.0.1:$port$1")
  grep -q "$2" <<<"$answer" || { echo "host_load: unexpected answer from $1: $answer" >&2; exit 1; }
}
check /host/bench '"method" : "Bench"'
check /kxp/ '"Quintaris Service Manager Module"'

run() {
  wrk -t "$wrk_threads" -c "$connections" -d "$duration" --latency -H "User-Agent: host_load" \
    -s "$work/post.lua" "http://127.0.0.1:$port$1" >"$work/$2.txt"
  local errors
  errors=$(grep -E 'Non-2xx|Socket errors' "$work/$2.txt" || true)
  [[ -z $errors ]] || { cat "$work/$2.txt" >&2; echo "host_load: errors in the $2 run" >&2; exit 1; }
}
run /host/bench fixed
run /kxp/ module

rps() { awk '/^Requests\/sec:/ {print $2}' "$work/$1.txt"; }
p99() { awk '$1 == "99%" {print $2}' "$work/$1.txt"; }

fixed_rps=$(rps fixed)
module_rps=$(rps module)
echo "qs-host load, $duration each, $connections keep-alive connections, wrk threads $wrk_threads," \
  "host threads ${host_threads:-default}, POST $body"
printf '%-34s %12s %10s\n' "target" "requests/s" "p99"
printf '%-34s %12s %10s\n' "/host/bench (fixed, no module)" "$fixed_rps" "$(p99 fixed)"
printf '%-34s %12s %10s\n' "/kxp/ VersionInfo (module)" "$module_rps" "$(p99 module)"
awk -v m="$module_rps" -v f="$fixed_rps" 'BEGIN { printf "ratio module / fixed: %.2f\n", m / f }'
