#!/usr/bin/env bash
# The installed package as a module author uses it: install the build into a
# temporary prefix, build examples/exec_logger against that prefix with
# find_package(FtraceModule), install it into the prefix's module directory,
# run the installed agent on that directory and expect the example's log line
# for an exec of /bin/true.
#   example_module_test.sh <build dir> <source dir>
set -euo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
tracing=/sys/kernel/tracing
zev=$tracing/instances/ZEV

work=$(mktemp -d /tmp/ftrace_example_module.XXXXXX)
agent_pid=
cleanup() {
    if [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; then
        kill -TERM "$agent_pid"
        wait "$agent_pid" || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; [ -f "$work/agent.log" ] && sed 's/^/  log: /' "$work/agent.log" >&2; exit 1; }

# Polls `test` (a shell condition) for up to $1 seconds.
wait_for() {
    local seconds=$1; shift
    local end=$((SECONDS + seconds))
    until eval "$*"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.2
    done
}

skip_if_agent_running() {
    local lock=/run/ftrace-agent.ZEV.lock
    if [ -e "$lock" ] && ! flock -n "$lock" true; then
        echo "SKIP: an ftrace-agent is running on this host and owns ZEV"
        exit 77
    fi
}
skip_if_agent_running
instances_before=$(ls "$tracing/instances")
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || fail "cmake --install"
cmake -S "$source_dir/examples/exec_logger" -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/example-configure.log" 2>&1 || fail "configure example: $(cat "$work/example-configure.log")"
cmake --build "$work/example" >"$work/example-build.log" 2>&1 || fail "build example: $(cat "$work/example-build.log")"
cmake --install "$work/example" >/dev/null || fail "install example"
[ -f "$prefix/module/libexec_logger.so" ] || fail "the example did not install into $prefix/module"
[ -f "$prefix/lib/pkgconfig/ftrace-module.pc" ] || fail "no pkg-config file"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags ftrace-module | grep -q -- "-I$prefix/include" ||
    fail "pkg-config ftrace-module does not point into $prefix"

skip_if_agent_running
"$prefix/bin/ftrace-agent" --module-dir="$prefix/module" --format=none --log-file="$work/agent.log" \
    >"$work/agent.out" 2>"$work/agent.err" &
agent_pid=$!
# Records reach the reader at the buffer watermark or after its 1000 ms bounded wait: allow seconds.
if ! wait_for 20 '[ "$(cat $zev/events/sched/sched_process_exec/enable 2>/dev/null)" = 1 ]'; then
    grep -q "is in use by another ftrace-agent" "$work/agent.err" && { echo "SKIP: $(cat "$work/agent.err")"; exit 77; }
    fail "the exec event was not enabled: $(cat "$work/agent.err")"
fi
grep -q "loaded $prefix/module/libexec_logger.so" "$work/agent.log" || fail "the example module was not loaded"

/bin/true &
true_pid=$!
wait "$true_pid"
wait_for 20 'grep -q "exec_logger: exec pid $true_pid /bin/true\$" "$work/agent.log"' ||
    fail "no exec_logger line for pid $true_pid"

kill -INT "$agent_pid"
status=0
wait "$agent_pid" || status=$?
agent_pid=
[ "$status" -eq 0 ] || fail "agent exited with $status: $(cat "$work/agent.err")"
grep -q "sched:sched_process_exec: " "$work/agent.err" || fail "no summary: $(cat "$work/agent.err")"
enable=$(cat "$zev/events/sched/sched_process_exec/enable" 2>/dev/null || echo gone)
[ "$enable" = 0 ] || [ "$enable" = gone ] || fail "the exec event is still enabled in ZEV"
[ "$(ls "$tracing/instances")" = "$instances_before" ] || fail "instances changed: $(ls "$tracing/instances")"
echo "example module logged the exec of pid $true_pid"
