#!/bin/bash
# Installs the Debian packages that quillet needs to build and that its
# print queue backend runs (bubblewrap, Ghostscript, Poppler). With --example,
# also Ghostscript to render the example job; with --tests, also the tools
# that the test suite drives (Ghostscript, Poppler, document makers, the
# CUPS print server with its client programs and filters, which the print
# queue tests run privately, and the simulated driverless printer
# ippeveprinter with ipptool, which needs its own D-Bus bus and avahi-daemon,
# and tesseract, which reads the marks off the raster pages it receives;
# and lintian, which checks the Debian package);
# with --bench, also what scripts/bench.sh runs (enscript, CUPS's pstops and
# gstopdf filters, the PPD compiler, GNU time, and for the driverless part a
# private print server and the simulated driverless printer);
# with --sanitizers, the test tools and the AddressSanitizer and
# UndefinedBehaviorSanitizer runtimes; with --fuzz, clang and its libFuzzer
# and sanitizer runtimes.
set -euo pipefail

build_packages=(
    cmake g++ make
    qtbase5-dev qttools5-dev qttools5-dev-tools
    t1utils fonts-urw-base35
    libcups2-dev
)
# What the print queue's backend runs on every job: the per-job sandbox, and
# Ghostscript and Poppler's Cairo converter as the trusted interpreter.
runtime_packages=(
    bubblewrap ghostscript poppler-utils
)
test_packages=(
    ghostscript poppler-utils
    groff enscript
    util-linux mount
    dpkg-dev file
    time
    cups cups-client cups-filters
    cups-ipp-utils avahi-daemon dbus-daemon dbus-bin
    tesseract-ocr
    lintian
)
bench_packages=(
    enscript cups-core-drivers cups-filters cups-ppdc time
    cups cups-client cups-ipp-utils avahi-daemon dbus-daemon dbus-bin
)
sanitizer_packages=(
    libasan8 libubsan1
)
fuzz_packages=(
    clang libclang-rt-14-dev
    util-linux mount
)

packages=("${build_packages[@]}" "${runtime_packages[@]}")
case "${1:-}" in
    --example) packages+=(ghostscript) ;;
    --tests) packages+=("${test_packages[@]}") ;;
    --bench) packages+=("${bench_packages[@]}") ;;
    --sanitizers) packages+=("${test_packages[@]}" "${sanitizer_packages[@]}") ;;
    --fuzz) packages+=("${fuzz_packages[@]}") ;;
esac

# Install only what is missing, so that repeated runs stay quick and work
# without network access once everything is there.
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "install-dependencies: run as root to install: ${missing[*]}" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update
    apt-get install -y --no-install-recommends "${missing[@]}"
fi
