#!/usr/bin/env bash
# Runs every benchmark program of a build and ends with the summary lines
# `ratio NAME VALUE GOAL` that the programs print (VALUE: ours / peer's).
set -uo pipefail
build=${1:-build/default}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
for bin in "$build"/bench/bench_*; do
  [ -x "$bin" ] || continue
  echo "== $(basename "$bin")"
  "$bin" --benchmark_color=false 2>&1 | tee -a "$out" || status=1
done
echo
echo "== summary"
grep -E '^ratio ' "$out" || echo "(no ratio lines)"
exit $status
