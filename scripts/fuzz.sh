#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz (clang, AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs each one, starting from its seed corpus
# in fuzz/corpus/<target>, for a bounded time. Any crash, leak, undefined
# behaviour, timeout or out-of-memory is a finding: the input is kept in
# build-fuzz/findings/ and the script fails.
# usage: scripts/fuzz.sh            KRFILTER_FUZZ_SECONDS=n for n seconds in all (default 60)
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"
total="${KRFILTER_FUZZ_SECONDS:-60}"
jobs="${JOBS:-2}"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKRFILTER_FUZZ=ON \
    -DKRFILTER_TESTS=OFF -DKRFILTER_TOOLS=OFF -DKRFILTER_BENCH=OFF -DKRFILTER_SANITIZE=OFF >/dev/null &&
  cmake --build "$build" -j"$jobs" >"$build/fuzz-build.log" 2>&1 || {
  tail -30 "$build/fuzz-build.log" 2>/dev/null
  echo "fuzz: build failed"
  exit 1
}

# A single request above 2 GiB comes back as a null block (the library's
# allocation-failure path, a refusal in the file readers) before the fuzzer's
# own limit of 4 GiB sees it; that limit then catches only memory that really
# piles up. The DICOM reader's decoder process inherits the same rules (and
# its sanitizer reports go to a file: fuzz/file_reader_harness.h).
export ASAN_OPTIONS="allocator_may_return_null=1:max_allocation_size_mb=2048:detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TMPDIR="$build"

# The filter target gets half the time: it covers the whole library.
targets=(fuzz_filters fuzz_png_reader fuzz_tiff_reader fuzz_dicom_reader)
shares=(3 1 1 1)
mkdir -p "$build/findings"
status=0
executions=0
for i in "${!targets[@]}"; do
  target="${targets[$i]}"
  seconds=$(( total * ${shares[$i]} / 6 ))
  [ "$seconds" -lt 1 ] && seconds=1
  # New inputs go to a scratch corpus; the committed seeds stay as they are.
  work="$build/corpus/$target"
  mkdir -p "$work"
  log="$build/$target.log"
  "$build/fuzz/$target" "$work" "$root/fuzz/corpus/$target" -max_total_time="$seconds" -timeout=10 \
      -rss_limit_mb=4096 -malloc_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$build/findings/$target-" >"$log" 2>&1
  code=$?
  rm -f "$build"/krfilter-fuzz-*  # the readers' scratch files
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  runs=${runs:-0}
  executions=$(( executions + runs ))
  if [ $code -ne 0 ]; then
    echo "FAIL  $target: finding after $runs executions (log: $log)"
    grep -E '^==[0-9]+==ERROR|SUMMARY|runtime error|Test unit written' "$log" | head -5
    status=1
  else
    echo "ok    $target: $runs executions in $seconds s, corpus $(ls "$work" | wc -l) inputs"
  fi
done
echo "fuzz: $executions executions in all"
exit $status
