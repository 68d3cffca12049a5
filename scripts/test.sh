#!/usr/bin/env bash
# The whole test suite, as CI runs it:
#   1. release build of the library, the tool, the tests and the benchmark
#      program (compiled, not run), then every test;
#   2. the same tests built with AddressSanitizer, LeakSanitizer and
#      UndefinedBehaviorSanitizer;
#   3. the library cross-compiled for Windows as krfilter.dll, with its
#      export table checked;
#   4. that DLL under Wine: a host program gives the same catalogue and the
#      same output of every filter as on Linux, and the named semaphore holds;
#   5. the thread tests built with ThreadSanitizer: every filter on two
#      threads at once, and the named semaphore under many threads;
#   6. the fuzz targets (libFuzzer, clang) for a bounded time, about a minute
#      (KRFILTER_FUZZ_SECONDS=n for longer).
# Every stage runs even when an earlier one failed; the last line says PASS
# or FAIL, and the exit status is non-zero on any failure.
# usage: scripts/test.sh            (JOBS=n to change the parallelism, default 2)
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
jobs="${JOBS:-2}"
logs="$root/build-logs"
mkdir -p "$logs"
rm -f "$logs"/*.log

results=()
failed=0
stage() {
  local name="$1"
  shift
  echo
  echo "=== $name"
  local start=$SECONDS
  if "$@"; then
    results+=("PASS  $name ($((SECONDS - start)) s)")
  else
    results+=("FAIL  $name ($((SECONDS - start)) s)")
    failed=1
  fi
}

# ctest's own summary line ("100% tests passed, 0 tests failed out of N").
ctest_summary() { grep -E 'tests passed|No tests were found' "$1" | tail -1; }

release() {
  cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DKRFILTER_TESTS=ON -DKRFILTER_TOOLS=ON \
        -DKRFILTER_BENCH=ON -DKRFILTER_SANITIZE=OFF &&
    cmake --build "$root/build" -j"$jobs" &&
    ctest --test-dir "$root/build" -j"$jobs" --output-on-failure --timeout 1200 | tee "$logs/release-ctest.log"
}

sanitized() {
  cmake -S "$root" -B "$root/build-asan" -DCMAKE_BUILD_TYPE=Release -DKRFILTER_TESTS=ON -DKRFILTER_TOOLS=ON \
        -DKRFILTER_BENCH=OFF -DKRFILTER_SANITIZE=ON &&
    cmake --build "$root/build-asan" -j"$jobs" &&
    ctest --test-dir "$root/build-asan" -j"$jobs" --output-on-failure --timeout 2400 | tee "$logs/asan-ctest.log"
}

windows_dll() {
  cmake -S "$root" -B "$root/build-mingw" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DKRFILTER_TESTS=OFF -DKRFILTER_TOOLS=OFF -DKRFILTER_BENCH=OFF &&
    cmake --build "$root/build-mingw" -j"$jobs" --target krfilter &&
    "$root/scripts/check-dll-exports.sh" "$root/build-mingw/krfilter.dll"
}

# Status 77 means Wine is missing: the check says so and the summary shows
# the stage as skipped, never as passed.
windows_under_wine() {
  echo
  echo "=== Windows DLL under Wine"
  local start=$SECONDS status=0
  bash "$root/tests/windows/check_wine.sh" "$root/build" "$root/build-mingw" "$root" || status=$?
  case $status in
    0) results+=("PASS  Windows DLL under Wine ($((SECONDS - start)) s)") ;;
    77) results+=("SKIP  Windows DLL under Wine: Wine is not installed") ;;
    *) results+=("FAIL  Windows DLL under Wine ($((SECONDS - start)) s)"); failed=1 ;;
  esac
}

# Only the thread tests: ThreadSanitizer slows everything else down for nothing.
threads() {
  cmake -S "$root" -B "$root/build-tsan" -DCMAKE_BUILD_TYPE=Release -DKRFILTER_TESTS=ON -DKRFILTER_TOOLS=OFF \
        -DKRFILTER_BENCH=OFF -DKRFILTER_SANITIZE=OFF -DKRFILTER_TSAN=ON &&
    cmake --build "$root/build-tsan" -j"$jobs" --target krfilter_thread_tests &&
    ctest --test-dir "$root/build-tsan" -R threads_under_thread_sanitizer --output-on-failure --timeout 600 |
      tee "$logs/tsan.log"
}

fuzzing() { "$root/scripts/fuzz.sh" | tee "$logs/fuzz.log"; }

stage "dependencies" "$root/scripts/install-deps.sh"
stage "release build and tests" release
stage "sanitizer build and tests" sanitized
stage "Windows DLL cross-compile and exports" windows_dll
windows_under_wine
stage "ThreadSanitizer build and thread tests" threads
stage "fuzzing" fuzzing

echo
echo "=== summary"
printf '%s\n' "${results[@]}"
[ -f "$logs/release-ctest.log" ] && echo "release:   $(ctest_summary "$logs/release-ctest.log")"
[ -f "$logs/asan-ctest.log" ] && echo "sanitizer: $(ctest_summary "$logs/asan-ctest.log")"
if [ $failed -ne 0 ]; then
  echo "test.sh: FAIL"
  exit 1
fi
echo "test.sh: PASS (release tests, sanitizer tests, Windows DLL exports and under Wine, threads, fuzzing)"
