#!/usr/bin/env bash
# Fails unless the Windows build of the library exports its public interface
# and depends on no MinGW runtime DLL (a host gets one self-contained file).
# usage: scripts/check-dll-exports.sh path/to/krfilter.dll
set -euo pipefail
dll="$1"
dump="$(x86_64-w64-mingw32-objdump -p "$dll")"
exports="$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$dump" | sed -n 's/^\s*\[ *[0-9]*\] //p')"
status=0
for name in DoFilter FilterProcessing GetInformation filterlist; do
  grep -qx "$name" <<<"$exports" || { echo "missing export: $name"; status=1; }
done
# 3 constructors, destructor, assignment and 9 accessors, with the compiler's complete/base variants.
members=$(grep -c '^_ZN8CKRImage' <<<"$exports" || true)
[ "$members" -ge 14 ] || { echo "CKRImage members exported: $members (expected at least 14)"; status=1; }
unexpected="$(grep -v -e '^_ZN8CKRImage' -e '^DoFilter$' -e '^FilterProcessing$' -e '^GetInformation$' -e '^filterlist$' <<<"$exports" || true)"
[ -z "$unexpected" ] || { echo "unexpected exports:"; echo "$unexpected"; status=1; }
runtime="$(grep 'DLL Name:' <<<"$dump" | grep -i -e libstdc -e libgcc -e winpthread || true)"
[ -z "$runtime" ] || { echo "depends on MinGW runtime DLLs:"; echo "$runtime"; status=1; }
[ $status -eq 0 ] && echo "dll exports ok: $(wc -l <<<"$exports") symbols, no MinGW runtime DLLs"
exit $status
