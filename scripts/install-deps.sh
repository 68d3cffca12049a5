#!/usr/bin/env bash
# Installs the Debian packages that building, testing, benchmarking and the
# Windows cross-compile need. Only missing packages are installed, so a
# machine that has them all is done in a fraction of a second.
set -euo pipefail

packages=(
  cmake make g++ pkg-config python3
  # The wavelet benchmark's peer.
  python3-pywt
  libgtest-dev libgmock-dev libbenchmark-dev libopencv-dev libpng-dev libtiff-dev
  # The tool's DICOM files and command line.
  libgdcm-dev libcli11-dev
  g++-multilib g++-mingw-w64-x86-64
  # The fuzz targets: clang with libFuzzer and its sanitizer runtimes.
  clang libclang-rt-14-dev
  # The Windows library run under Wine.
  wine wine64
  # The Python package, its tests and its batch runs; gdcm decodes JPEG 2000 DICOM.
  python3-numpy python3-pytest python3-hypothesis python3-dask python3-distributed
  python3-pil python3-tifffile python3-pydicom python3-gdcm
  # krfilter serve and its test in a real browser.
  libcpp-httplib-dev nlohmann-json3-dev chromium chromium-driver python3-selenium
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: need root (or sudo) to install ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
