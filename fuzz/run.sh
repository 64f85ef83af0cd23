#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a set time. New inputs that
# reach new coverage are written into the target's saved corpus folder.
set -euo pipefail
build=${1:-build/fuzz}
seconds=${2:-60}
src=$(cd "$(dirname "$0")" && pwd)
status=0
for bin in "$build"/fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin"); name=${name#fuzz_}
  corpus="$src/corpus/$name"
  mkdir -p "$corpus"
  echo "== fuzz $name for ${seconds}s"
  "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$corpus" || status=1
done
exit $status
