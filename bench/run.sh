#!/usr/bin/env bash
# Runs every benchmark program of a build, one at a time, and ends with the
# summary lines the programs print:
#   ratio NAME VALUE GOAL LOWEST..HIGHEST
# VALUE is the median over the rounds of ours / peer's (each round runs every
# side of a comparison once, in turns), LOWEST..HIGHEST the spread of the
# rounds; GOAL is "-" for figures without one.
set -uo pipefail
build=${1:-build/default}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
for bin in "$build"/bench/bench_*; do
  [ -x "$bin" ] || continue
  echo "== $(basename "$bin")"
  start=$SECONDS
  "$bin" --benchmark_color=false 2>&1 | tee -a "$out" || status=1
  echo "($(basename "$bin"): $((SECONDS - start)) s)"
done
echo
echo "== summary ($SECONDS s)"
grep -E '^ratio ' "$out" || echo "(no ratio lines)"
exit $status
