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
work=$(mktemp -d /tmp/ftrace_example_module.XXXXXX)
agent_pid=
cleanup() {
    [ -n "$agent_pid" ] && kill -TERM "$agent_pid" 2>/dev/null && { wait "$agent_pid" || true; }
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; [ -f "$work/agent.log" ] && sed 's/^/  log: /' "$work/agent.log" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
# wait_for <seconds> <shell condition>
wait_for() {
    local end=$((SECONDS + $1))
    until eval "$2"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.2
    done
}

lock=/run/ftrace-agent.ZEV.lock
[ -e "$lock" ] && ! flock -n "$lock" true && skip "an ftrace-agent is running on this host and owns ZEV"
instances_before=$(ls "$tracing/instances")
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || fail "cmake --install"
cmake -S "$source_dir/examples/exec_logger" -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" >"$work/example.log" 2>&1 &&
    cmake --build "$work/example" >>"$work/example.log" 2>&1 && cmake --install "$work/example" >>"$work/example.log" ||
    fail "example: $(cat "$work/example.log")"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags ftrace-module | grep -q -- "-I$prefix/include" ||
    fail "pkg-config ftrace-module does not point into $prefix"

"$prefix/bin/ftrace-agent" --module-dir="$prefix/module" --format=none --log-file="$work/agent.log" \
    >"$work/agent.out" 2>"$work/agent.err" &
agent_pid=$!
enable=$tracing/instances/ZEV/events/sched/sched_process_exec/enable
if ! wait_for 20 '[ "$(cat $enable 2>/dev/null)" = 1 ]'; then
    grep -q "is in use by another ftrace-agent" "$work/agent.err" && skip "$(cat "$work/agent.err")"
    fail "the exec event was not enabled: $(cat "$work/agent.err")"
fi
/bin/true &
true_pid=$!
wait "$true_pid"
# Records reach the reader at the buffer watermark or after its 1000 ms bounded wait: allow seconds.
wait_for 20 'grep -q "exec_logger: exec pid $true_pid /bin/true\$" "$work/agent.log"' ||
    fail "no exec_logger line for pid $true_pid"

kill -INT "$agent_pid"
status=0
wait "$agent_pid" || status=$?
agent_pid=
[ "$status" -eq 0 ] || fail "agent exited with $status: $(cat "$work/agent.err")"
grep -q "sched:sched_process_exec: " "$work/agent.err" || fail "no summary: $(cat "$work/agent.err")"
[ "$(ls "$tracing/instances")" = "$instances_before" ] || fail "instances changed: $(ls "$tracing/instances")"
echo "example module logged the exec of pid $true_pid"
