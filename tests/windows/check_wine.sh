#!/usr/bin/env bash
# The Windows build proved under Wine: compare_host.c built natively against
# libkrfilter.so and with mingw-w64 against krfilter.dll must print the same
# layouts, catalogue and output checksums, and the Windows build must wait on
# the named semaphore through CreateSemaphoreW.
# usage: check_wine.sh NATIVE_BUILD_DIR MINGW_BUILD_DIR SOURCE_DIR
# Exit 0 pass, 1 fail, 77 Wine is missing (the test is skipped, and says so).
set -euo pipefail
native="$1"
mingw="$2"
source="$3"
if ! command -v wine >/dev/null 2>&1; then
  echo "check_wine: SKIPPED, Wine is not installed (scripts/install-deps.sh installs it)"
  exit 77
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export WINEPREFIX="$work/prefix" WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

cc -std=c11 -O1 -I"$source/include" "$source/tests/windows/compare_host.c" -L"$native" -lkrfilter \
   -Wl,-rpath,"$native" -o "$work/native_host"
# The DLL's C runtime is linked in statically; the host gets the same, and
# the ANSI printf so that both builds spell 64-bit numbers alike.
x86_64-w64-mingw32-gcc -std=c11 -O1 -D__USE_MINGW_ANSI_STDIO=1 -I"$source/include" \
   "$source/tests/windows/compare_host.c" "$mingw/libkrfilter.dll.a" -static -o "$work/compare_host.exe"
cp "$mingw/krfilter.dll" "$work/"

# "rain" prints its estimate itself, through each platform's own C runtime,
# which spells a not-a-number differently: its lines are left out.
"$work/native_host" | grep -v '^G: ' > "$work/linux.txt"
wine "$work/compare_host.exe" 2>"$work/wine-errors.txt" | tr -d '\r' | grep -v '^G: ' > "$work/windows.txt" || true
if ! [ -s "$work/windows.txt" ]; then
  echo "check_wine: the Windows host printed nothing under Wine"
  cat "$work/wine-errors.txt"
  exit 1
fi
if ! diff -u "$work/linux.txt" "$work/windows.txt" > "$work/diff.txt"; then
  echo "check_wine: Linux and Windows builds differ:"
  head -40 "$work/diff.txt"
  exit 1
fi
runs=$(grep -c '^run ' "$work/linux.txt")
filters=$(grep -c 'dispatched 1$' "$work/linux.txt")
echo "check_wine: layouts, catalogue and $runs filter runs ($filters dispatched filters) identical on Linux and under Wine"
semaphore=$(wine "$work/compare_host.exe" --semaphore 2>>"$work/wine-errors.txt" | tr -d '\r' || true)
echo "check_wine: $semaphore"
case "$semaphore" in
  *"waited for the slot"*) exit 0 ;;
  *) exit 1 ;;
esac
