#!/bin/bash
# Builds the Debian package in a build folder of its own, configured for
# /usr as Debian packages are: programs in /usr/bin and /usr/sbin, the print
# queue's backend in /usr/lib/cups/backend, data in /usr/share,
# configuration in /etc. A source install (scripts/setup.sh, /usr/local)
# and its build folder are left alone.
#
#   bash scripts/package.sh [BUILD-FOLDER [OUTPUT-FOLDER]]
#
# Defaults: build-deb in the clone, and the package in that folder.
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$source/build-deb}
output=${2:-$build}

cmake -S "$source" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF
cmake --build "$build" --parallel "$(nproc)"
cpack -G DEB -B "$output" --config "$build/CPackConfig.cmake"
