#!/bin/bash
# Installs what the tests need, builds quillet with its tests and runs the
# whole suite. The end-to-end tests use private mount namespaces: run as root.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-dependencies.sh --tests
cmake -S . -B build -DBUILD_TESTING=ON
cmake --build build --parallel "$(nproc)"
cd build
ctest --output-on-failure --parallel "$(nproc)"
