#!/usr/bin/env bash
# Runs the CPU-bound comparisons under callgrind at their smaller sizes and
# prints the same `ratio NAME VALUE GOAL` lines as bench/run.sh, from
# instruction counts of the measured regions (VALUE: ours / peer's), followed
# by the two counts in millions. Counts do not move with the load of the
# machine: two runs print the same figures. (The counts themselves can differ
# by a few hundred instructions between runs, where the heap's layout differs,
# hence millions.)
# Usage: run-instructions.sh [BUILD [PROGRAM...]] (every program by default).
set -uo pipefail
build=${1:-build/default}
shift || true
programs=("$@")
command -v valgrind >/dev/null || { echo "run-instructions: valgrind is missing (scripts/install-deps.sh)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
summary="$work/summary"
: >"$summary"
status=0
# bench_tobas is left out: its comparisons move bytes through sockets and files.
[ ${#programs[@]} -gt 0 ] ||
  programs=(bench_sybconn bench_catalogue bench_conditions bench_velmora bench_condor bench_pool)
for name in "${programs[@]}"; do
  bin="$build/bench/$name"
  [ -x "$bin" ] || { echo "run-instructions: $bin is missing" >&2; status=1; continue; }
  echo "== $name"
  start=$SECONDS
  # Collection is off until a measured region switches it on; each side's
  # count is dumped to $out.<n> under the side's name.
  out="$work/$name.cg"
  if ! BENCH_INSTRUCTIONS=1 valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out" \
    "$bin" --benchmark_color=false >"$work/$name.txt" 2>"$work/$name.err"; then
    status=1
    tail -20 "$work/$name.err"
  fi
  grep -v '^counted ' "$work/$name.txt"
  # "side count" for every dump, then the ratio of each `counted` line.
  for f in "$out".*; do
    [ -f "$f" ] || continue
    awk '/^desc: Trigger: Client Request: / { side = $5 } /^summary: / { n = $2 } END { if (side != "") print side, n + 0 }' "$f"
  done >"$work/$name.counts"
  awk 'NR == FNR { count[$1] = $2; next }
       $1 == "counted" {
         o = count[$3]; p = count[$4]
         if (o > 0 && p > 0) printf "ratio %s %.3f %s Ir %.1fM/%.1fM\n", $2, o / p, $5, o / 1e6, p / 1e6
         else printf "ratio %s nan %s\n", $2, $5
       }' "$work/$name.counts" "$work/$name.txt" | tee -a "$summary"
  echo "($name: $((SECONDS - start)) s)"
done
echo
echo "== summary (instruction counts)"
if [ -s "$summary" ]; then cat "$summary"; else echo "(no ratio lines)"; fi
exit $status
