#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for a short
# while from the seed inputs checked in under fuzz/corpus/<target>/. Any crash,
# sanitizer report, leak or failed check of a harness fails the run; the input
# that caused it is left in build/fuzz/findings/.
#   scripts/fuzz.sh                 about 30 seconds per target
#   FUZZ_SECONDS=300 scripts/fuzz.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

seconds=${FUZZ_SECONDS:-30}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzz_all

# Absolute paths: a harness may change the working folder (extraction does).
findings=$PWD/build/fuzz/findings
mkdir -p "$findings"
for seeds in "$PWD"/fuzz/corpus/*/; do
  target=$(basename "$seeds")
  work=$(mktemp -d)
  echo "fuzz: $target for ${seconds}s"
  # New inputs go to a scratch folder; the checked-in seeds are only read.
  if ! "$PWD/build/fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$findings/$target-" "$work" "$seeds" \
      >"$findings/$target.log" 2>&1; then
    tail -n 40 "$findings/$target.log"
    echo "fuzz: $target failed; the input is in $findings/" >&2
    rm -rf "$work"
    exit 1
  fi
  grep -E '^stat::number_of_executed_units' "$findings/$target.log" || true
  rm -rf "$work"
done
