#!/bin/sh
# Fails when the library exports anything beyond its public interface.
lib="$1"
expected='CKRImage::
DoFilter
FilterProcessing
GetInformation
filterlist'
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt | sed -e 's/^CKRImage::.*/CKRImage::/' | sort -u)
if [ "$actual" != "$expected" ]; then
  echo "unexpected exported symbols:"; echo "$actual"; exit 1
fi
count=$(nm -D --defined-only "$lib" | c++filt | grep -c 'CKRImage::')
# 3 constructors, destructor, assignment and 9 accessors, with the compiler's complete/base variants.
[ "$count" -ge 14 ] || { echo "CKRImage members missing: $count"; exit 1; }
echo "exports ok"
