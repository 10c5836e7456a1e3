#!/bin/bash
# Builds quillet and its whole test suite with AddressSanitizer and
# UndefinedBehaviorSanitizer in a build folder of its own (build-sanitize/)
# and runs every test with any sanitizer report fatal. The end-to-end tests
# start the sanitized executable inside their sandbox; it inherits the
# options below from the test process. Run as root, like scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-dependencies.sh --sanitizers

build=${QUILLET_SANITIZE_BUILD:-build-sanitize}
cmake -S . -B "$build" -DBUILD_TESTING=ON -DQUILLET_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" --parallel "$(nproc)"

# Any report ends the process that made it with SIGABRT, which every test
# sees as a crash; leaks are reported at exit like any other error.
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
cd "$build"
ctest --output-on-failure --parallel "$(nproc)"
