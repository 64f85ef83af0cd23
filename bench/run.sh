#!/usr/bin/env bash
# Runs every benchmark program of a build, one at a time, and ends with the
# summary lines the programs print:
#   ratio NAME VALUE GOAL LOWEST..HIGHEST
# VALUE is the median over the rounds of ours / peer's (each round runs every
# side of a comparison once, in turns), LOWEST..HIGHEST the spread of the
# rounds; GOAL is "-" for figures without one.
# BENCH=NAME runs only the programs whose name starts with bench_NAME
# (`BENCH=tobas make bench`: bench_tobas); unset or empty, all of them.
set -uo pipefail
build=${1:-build/default}
filter=${BENCH:-}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
ran=0
for bin in "$build"/bench/bench_"$filter"*; do
  [ -x "$bin" ] || continue
  ran=$((ran + 1))
  echo "== $(basename "$bin")"
  start=$SECONDS
  "$bin" --benchmark_color=false 2>&1 | tee -a "$out" || status=1
  echo "($(basename "$bin"): $((SECONDS - start)) s)"
done
if [ $ran -eq 0 ]; then
  echo "run.sh: no benchmark program in $build/bench matches bench_$filter*" >&2
  exit 1
fi
echo
echo "== summary ($SECONDS s)"
grep -E '^ratio ' "$out" || echo "(no ratio lines)"
exit $status
