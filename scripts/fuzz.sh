#!/bin/bash
# Builds the libFuzzer targets of tests/fuzz with clang in a build folder of
# their own (build-fuzz/) and runs each for a while, starting from its seed
# corpus in tests/fuzz/corpus/<target>/. Any crash, leak, sanitizer report,
# time-out or memory blow-up fails the run; the input that caused it is left
# in build-fuzz/findings/<target>/. Each target's own output goes to
# build-fuzz/fuzz_<target>.log; the run prints its final statistics, and the
# end of the log when it failed. Run as root: each target runs in a private
# mount namespace whose CUPS data directory is a scratch folder.
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60, or $QUILLET_FUZZ_SECONDS)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${QUILLET_FUZZ_SECONDS:-60}}
build=${QUILLET_FUZZ_BUILD:-build-fuzz}
targets=(variables template catalogue document)

bash scripts/install-dependencies.sh --fuzz
cmake -S . -B "$build" -DBUILD_TESTING=OFF -DQUILLET_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++
cmake --build "$build" --parallel "$(nproc)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1
datadir=$(sed -n 's/^inline constexpr char CupsDataDir\[\] = "\(.*\)";$/\1/p' "$build/src/common/paths.h")
root=$(pwd)
failed=()
for target in "${targets[@]}"; do
    # A scratch CUPS data directory with a token that the target checks
    # before it writes anything there; new inputs go to a scratch corpus so
    # that the repository's seeds stay as they are.
    scratch=$(mktemp -d /tmp/quillet-fuzz.XXXXXX)
    token=$(head -c 16 /dev/urandom | od -An -tx1 | tr -d ' \n')
    printf '%s' "$token" > "$scratch/.fuzz-token"
    mkdir -p "$scratch/corpus" "$build/findings/$target"
    log="$build/fuzz_$target.log"
    echo "== fuzz_$target for $seconds s (output in $log)"
    status=0
    QUILLET_FUZZ_TOKEN=$token tests/support/sandbox --bind "$scratch" "$datadir" -- \
        "$root/$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -max_len=16384 -print_final_stats=1 -artifact_prefix="$root/$build/findings/$target/" \
        "$scratch/corpus" "tests/fuzz/corpus/$target" > "$log" 2>&1 || status=$?
    rm -rf "$scratch"
    grep -E '^stat::(number_of_executed_units|peak_rss_mb|new_units_added):' "$log" || true
    if [ $status -ne 0 ]; then
        tail -n 80 "$log" >&2
        echo "fuzz_$target failed (status $status); inputs in $build/findings/$target/" >&2
        failed+=("$target")
    fi
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: failures in ${failed[*]}" >&2
    exit 1
fi
echo "fuzz: no failures in ${targets[*]} ($seconds s each)"
