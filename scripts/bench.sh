#!/usr/bin/env bash
# Runs the benchmark program on every workload and prints the README's
# performance table (ratios to the peer and to a memcpy of the raster).
# usage: scripts/bench.sh [FILTER_REGEX]      REPETITIONS=n (default 5), CLOCK=real|cpu (default real)
# The tables land in build/bench-results/<workload>.json.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bench="$root/build/bench/krfilter_bench"
results="$root/build/bench-results"
[ -x "$bench" ] || { echo "build the benchmark program first (KRFILTER_BENCH=ON)"; exit 1; }
mkdir -p "$results"
filter="${1:-.}"
for workload in phantom radiograph random12 random16; do
  "$bench" --workload="$workload" --benchmark_filter="$filter" --benchmark_repetitions="${REPETITIONS:-5}" \
      --benchmark_report_aggregates_only=false --time="${CLOCK:-real}" --table_out="$results/$workload.json" >"$results/$workload.log" 2>&1
done
/usr/bin/python3 "$root/bench/report.py" "$results"/{phantom,radiograph,random12,random16}.json
