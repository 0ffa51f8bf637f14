#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the normal build,
# then the AddressSanitizer+UBSan build, the ThreadSanitizer build and short
# fuzzing runs. Needs root (the tests drive the real kernel's tracefs).
#   scripts/test.sh            everything
#   FTRACE_TEST_QUICK=1 ...     the normal build only
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc)

scripts/install-deps.sh
scripts/mount-tracefs.sh

passed=0
failed=0

# An instance left by a killed agent would be adopted by the tests, with its
# events and pid filter still set. Remove it first unless an agent is running.
reset_zev() {
    local zev=/sys/kernel/tracing/instances/ZEV
    [ -d "$zev" ] || return 0
    if pgrep -x ftrace-agent >/dev/null; then
        echo "warning: an ftrace-agent is running; leaving instances/ZEV as it is" >&2
        return 0
    fi
    echo "removing a leftover tracing instance ZEV before the tests"
    echo 0 > "$zev/events/enable" 2>/dev/null || true
    : > "$zev/set_event_pid" 2>/dev/null || true
    rmdir "$zev" 2>/dev/null || echo "warning: could not remove $zev" >&2
}

run_ctest() {  # run_ctest <build dir> [ctest args...]
    local dir=$1; shift
    local log="$dir/ctest.log"
    reset_zev
    set +e
    # Tests share the tracing instance ZEV: a second test run on this host
    # waits for the first instead of disturbing it.
    flock /tmp/ftrace-zev.lock \
        ctest --test-dir "$dir" --output-on-failure --timeout 600 -j2 "$@" 2>&1 | tee "$log"
    local rc=${PIPESTATUS[0]}
    set -e
    local line total nfail
    line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -1 || true)
    if [ -n "$line" ]; then
        total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")
        nfail=$(sed -E 's/.*passed, ([0-9]+) tests failed.*/\1/' <<<"$line")
        passed=$((passed + total - nfail))
        failed=$((failed + nfail))
    elif [ "$rc" -ne 0 ]; then
        failed=$((failed + 1))
    fi
}

build() {  # build <dir> [cmake args...] [-- targets...]
    local dir=$1; shift
    local args=() targets=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do args+=("$1"); shift; done
    [ $# -gt 0 ] && shift && targets=(--target "$@")
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
    cmake --build "$dir" -j"$jobs" "${targets[@]}"
}

echo "== normal build"
build build
run_ctest build

if [ -z "${FTRACE_TEST_QUICK:-}" ]; then
    # The sanitizer builds run everything but the install test (it builds and
    # installs a second, uninstrumented project); their soak is shorter.
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
    build build-asan -DFTRACE_SANITIZE_ADDRESS=ON -DFTRACE_BUILD_BENCH=OFF
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        run_ctest build-asan -LE install

    echo "== ThreadSanitizer build"
    build build-tsan -DFTRACE_SANITIZE_THREAD=ON -DFTRACE_BUILD_BENCH=OFF
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
        run_ctest build-tsan -LE install

    echo "== fuzzing (short runs)"
    build build-fuzz -DFTRACE_BUILD_FUZZ=ON -DFTRACE_BUILD_BENCH=OFF \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -- watch_path_fuzzer record_path_fuzzer
    run_ctest build-fuzz -L fuzz
fi

# Leave nothing behind in tracefs.
if [ -d /sys/kernel/tracing/instances/ZEV ]; then
    echo "warning: instances/ZEV is still present after the tests" >&2
fi

echo "all builds: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
