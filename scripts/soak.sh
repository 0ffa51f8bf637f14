#!/usr/bin/env bash
# The long reliability runs. Builds what it needs and runs the agent soak
# (tests/reliability/SoakTest.cpp) for ten minutes by default; CI runs the same
# test for 60 s (20 s in the sanitizer builds). Needs root and tracefs, and
# the instance ZEV must be free.
#
#   scripts/soak.sh [SECONDS]          soak in the normal build (default 600 s)
#   FTRACE_SOAK_ASAN=1 scripts/soak.sh  then again in the ASan+UBSan build
#   FTRACE_SOAK_FUZZ=SECONDS ...        then each fuzz target for SECONDS
#   FTRACE_SOAK_BUILD_DIR=DIR ...       build directory (default build; the
#                                       others get -asan and -fuzz appended)
#
# The load can be shaped with FTRACE_SOAK_SPAWN_RATE (children per second,
# default 100), FTRACE_SOAK_STORM_LOOPS (ping-pongs per perf run, default
# 10000) and FTRACE_SOAK_STORM_PAUSE_MS (pause between perf runs, default 300).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
export FTRACE_SOAK_SECONDS=${1:-${FTRACE_SOAK_SECONDS:-600}}
jobs=$(nproc)
dir=${FTRACE_SOAK_BUILD_DIR:-build}

scripts/install-deps.sh
scripts/mount-tracefs.sh

build() {  # build <dir> <targets> [cmake args...]
    local dir=$1 targets=$2
    shift 2
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFTRACE_BUILD_BENCH=OFF "$@" >/dev/null
    # shellcheck disable=SC2086
    cmake --build "$dir" -j"$jobs" --target $targets
}

status=0
echo "== soak, normal build, ${FTRACE_SOAK_SECONDS} s"
build "$dir" "reliability_soak_test ftrace-agent ftrace_module"
"$dir/bin/reliability_soak_test" || status=1

if [ -n "${FTRACE_SOAK_ASAN:-}" ]; then
    echo "== soak, AddressSanitizer + UndefinedBehaviorSanitizer build, ${FTRACE_SOAK_SECONDS} s"
    build "$dir-asan" "reliability_soak_test ftrace-agent ftrace_module" -DFTRACE_SANITIZE_ADDRESS=ON
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$dir-asan/bin/reliability_soak_test" || status=1
fi

if [ -n "${FTRACE_SOAK_FUZZ:-}" ]; then
    build "$dir-fuzz" "watch_path_fuzzer record_path_fuzzer" -DFTRACE_BUILD_FUZZ=ON \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
    for target in watch_path record_path; do
        echo "== fuzzing ${target} for ${FTRACE_SOAK_FUZZ} s"
        work="$root/$dir-fuzz/tests/fuzz/corpus/${target}"
        mkdir -p "$work"
        (cd "$dir-fuzz" && "bin/${target}_fuzzer" -max_total_time="$FTRACE_SOAK_FUZZ" -timeout=10 -rss_limit_mb=2048 \
            "$work" "$root/tests/fuzz/corpus/${target}") || status=1
    done
fi

[ "$status" -eq 0 ] && echo "soak: passed" || echo "soak: FAILED" >&2
exit "$status"
