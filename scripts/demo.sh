#!/usr/bin/env bash
# Installs what is missing, builds the library and the krfilter tool
# (release), and runs every filter of this build on the synthetic radiograph.
# usage: scripts/demo.sh [DIR]   (default: demo-out in the source tree)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${KRFILTER_BUILD_DIR:-$root/build}"

"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j"${JOBS:-2}" --target krfilter_cli
"$build/krfilter" demo "${1:-$root/demo-out}"
