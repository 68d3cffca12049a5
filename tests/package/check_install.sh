#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a tiny host against
# it twice: through find_package(krfilter) and through pkg-config. Each host
# must run the catalogue and one filter through the installed library.
# usage: check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1"
source="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
soname=$(objdump -p "$prefix"/lib*/libkrfilter.so* 2>/dev/null | awk '/SONAME/ && !seen {print $2; seen = 1}')
[ "$soname" = "libkrfilter.so.0" ] || { echo "SONAME is '$soname', expected libkrfilter.so.0"; exit 1; }
[ -x "$prefix/bin/krfilter" ] || { echo "the krfilter tool was not installed"; exit 1; }
"$prefix/bin/krfilter" list >/dev/null
# The installed tool reads DICOM through the decoder installed with it.
"$prefix/bin/krfilter" run --dry-run reverse "$source/../shared/data/RG3_J2KR.dcm" "$work/out.dcm" >/dev/null

host="$work/host"
mkdir -p "$host"
cp "$source/tests/package/host.c" "$host/"
cat > "$host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(installed_host C)
find_package(krfilter 0.1 REQUIRED)
add_executable(installed_host host.c)
target_link_libraries(installed_host PRIVATE krfilter::krfilter)
CMAKE
cmake -S "$host" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_RPATH="$(dirname "$(ls "$prefix"/lib*/libkrfilter.so | head -1)")" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/installed_host"

pcdir="$(dirname "$(ls "$prefix"/lib*/pkgconfig/krfilter.pc "$prefix"/lib/*/pkgconfig/krfilter.pc 2>/dev/null | head -1)")"
export PKG_CONFIG_PATH="$pcdir"
[ "$(pkg-config --modversion krfilter)" = "0.1.0" ] || { echo "pkg-config reports the wrong version"; exit 1; }
libdir="$(pkg-config --variable=libdir krfilter)"
# shellcheck disable=SC2046
cc -std=c11 "$host/host.c" $(pkg-config --cflags --libs krfilter) -Wl,-rpath,"$libdir" -o "$work/pkg-host"
"$work/pkg-host"
echo "installed package: CMake and pkg-config hosts ran"
