#!/usr/bin/env bash
# Installs what is missing, builds one preset and runs every test with CTest.
#   scripts/test.sh                 the default (optimised) build
#   scripts/test.sh --preset asan   AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --preset tsan   ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

preset=default
while (($#)); do
  case "$1" in
    --preset) preset="$2"; shift 2 ;;
    --preset=*) preset="${1#--preset=}"; shift ;;
    *) echo "usage: $0 [--preset default|asan|tsan]" >&2; exit 2 ;;
  esac
done

# The host's end-to-end tests use Debian's python3 with python3-websocket; the
# browser client's tests drive Debian's chromium; the package test builds the package (dpkg-dev) and
# runs it with systemd's tools and strace.
bash scripts/install-deps.sh chromium python3-websocket dpkg-dev systemd strace

case "$preset" in
  asan)
    # A leak the module keeps on purpose is named in this file.
    export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp:print_suppressions=0"
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
    ;;
  tsan)
    # Races the detector cannot judge (inside glibc) are named in this file.
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp"
    ;;
esac

cmake --preset "$preset"
cmake --build --preset "$preset"
# The browser client's test packages, exactly as client/package-lock.json names them.
(cd client && npm ci --no-audit --no-fund --loglevel=error)
ctest --preset "$preset"
