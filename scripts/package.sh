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

# Debian's build flags, as a Debian package build uses them: hardened
# (stack protector, fortified functions, relocations read-only and bound at
# start), with the source folder's path left out of the programs. They are
# given on every run, so a build folder always has the flags of this script.
flags=()
if command -v dpkg-buildflags >/dev/null; then
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    cxxflags=$(cd "$source" && echo "$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)")
    flags=(-DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)")
fi
cmake -S "$source" -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF "${flags[@]}"
cmake --build "$build" --parallel "$(nproc)"
cpack -G DEB -B "$output" --config "$build/CPackConfig.cmake"
