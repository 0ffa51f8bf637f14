#!/bin/bash
# ftrace-agent publishing every sched:sched_switch record of
# `perf bench sched pipe` to a single-node NATS JetStream on a loopback port
# (temporary store), against --format=none on the same workload in the same
# run. Prints messages per second, agent CPU per message, kernel loss and
# publish loss of each. Needs root, tracefs and nats-server; nobody else may
# use the instance ZEV meanwhile.
#
#   bench/nats.sh [build dir, default build-perf]     LOOPS=200000 by default
#   NATS_BUFFER=SIZE: --nats-buffer of the NATS run (512MiB by default: the
#     backlog of this workload at a single node needs about 450 MiB)
#   BUFFER_KB=KIB: --buffer-kb of both runs (default: the kernel's ring buffer size)
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=${1:-$HERE/../build-perf}
BUILD=$(cd "$BUILD" && pwd)
LOOPS=${LOOPS:-200000}
AGENT=$BUILD/bin/ftrace-agent
ZEV=/sys/kernel/tracing/instances/ZEV
WORK=$(mktemp -d /tmp/ftrace_nats_bench_XXXXXX)
agent_pid=
server_pid=

cleanup() {
    set +e  # a process already gone must not keep the rest from being cleaned
    [ -n "$agent_pid" ] && kill -INT "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
    [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT

[ -x "$AGENT" ] || { echo "no $AGENT: build it first" >&2; exit 1; }
command -v perf > /dev/null || { echo "perf is not installed" >&2; exit 1; }
command -v nats-server > /dev/null || { echo "nats-server is not installed" >&2; exit 1; }

cpu_ns() {  # CPU nanoseconds of every thread of a process so far
    local total=0 t
    for t in /proc/"$1"/task/*/schedstat; do total=$((total + $(cut -d' ' -f1 "$t"))); done
    echo "$total"
}
zev_stat() {  # one per_cpu/cpuN/stats counter of ZEV summed over the CPUs
    local total=0 f v
    for f in "$ZEV"/per_cpu/cpu*/stats; do v=$(sed -n "s/^$1: *//p" "$f"); total=$((total + ${v:-0})); done
    echo "$total"
}
free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
stored() { curl -s "http://127.0.0.1:$monitor/jsz" | python3 -c 'import json, sys; print(json.load(sys.stdin)["messages"])'; }
now_ns() { date +%s%N; }

mkdir "$WORK/modules"
ln -s "$BUILD/lib/libftrace_module.so" "$WORK/modules/"
port=$(free_port); monitor=$(free_port)
nats-server -a 127.0.0.1 -p "$port" -m "$monitor" -js -sd "$WORK/js" > "$WORK/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 100); do curl -sf "http://127.0.0.1:$monitor/healthz" > /dev/null && break; sleep 0.1; done

# run NAME OPTIONS...: one agent on one pipe benchmark.
run() {
    local name=$1; shift
    "$AGENT" --module-dir="$WORK/modules" --events=sched:sched_switch --log-level=warning \
        ${BUFFER_KB:+--buffer-kb="$BUFFER_KB"} "$@" \
        > /dev/null 2> "$WORK/$name.err" &
    agent_pid=$!
    for _ in $(seq 200); do
        [ "$(cat $ZEV/events/sched/sched_switch/enable 2>/dev/null)" = 1 ] && break
        kill -0 "$agent_pid" 2>/dev/null || break
        sleep 0.05
    done
    [ "$(cat $ZEV/events/sched/sched_switch/enable 2>/dev/null)" = 1 ] || { cat "$WORK/$name.err" >&2; exit 1; }
    local overrun0 dropped0 cpu0 cpu1 server0 server1 start end before after
    overrun0=$(zev_stat overrun); dropped0=$(zev_stat "dropped events")
    before=$( [ "$name" = nats ] && stored || echo 0)
    cpu0=$(cpu_ns "$agent_pid"); server0=$(cpu_ns "$server_pid"); start=$(now_ns)
    perf bench sched pipe -l "$LOOPS" > /dev/null
    end=$(now_ns)
    sleep 1.5  # the reader's bounded wait: what is still in the kernel is read by now
    if [ "$name" = nats ]; then
        # Until the backlog is stored. The stream never quite stops growing:
        # publishing switches tasks, which makes sched_switch records of its
        # own. Drained is when half a second adds less than 1 % of the total.
        after=$(stored)
        while sleep 0.5; do
            local again; again=$(stored)
            [ $(( (again - after) * 100 )) -lt $(( again - before )) ] && break
            after=$again; end=$(now_ns)
        done
    fi
    cpu1=$(cpu_ns "$agent_pid"); server1=$(cpu_ns "$server_pid")
    local peak; peak=$(sed -n 's/^VmHWM: *//p' /proc/"$agent_pid"/status)
    local overrun=$(( $(zev_stat overrun) - overrun0 )) dropped=$(( $(zev_stat "dropped events") - dropped0 ))
    kill -INT "$agent_pid"; wait "$agent_pid" || true; agent_pid=
    local delivered
    delivered=$(sed -n 's/^ftrace-agent summary: \([0-9]*\) messages.*/\1/p' "$WORK/$name.err")
    echo "== $name ($*)"
    sed -n '/^ftrace-agent summary/,$p' "$WORK/$name.err" | sed 's/^/  /'
    if [ "$name" = nats ]; then
        # The agent kept publishing after the measurement (the backlog's tail,
        # its own records) until it stopped. The stream, which only this
        # agent fills, must now hold exactly what it counted as acknowledged.
        local acknowledged final
        acknowledged=$(sed -n 's/^ *NATS: published [0-9]*, acknowledged \([0-9]*\),.*/\1/p' "$WORK/$name.err")
        final=$(stored)
        echo "  stored in the stream:      $((after - before)) while measured; $final in all, acknowledged $acknowledged"
        [ "$final" = "$acknowledged" ] || echo "  MISMATCH: the stream does not hold what the agent counted as acknowledged"
    fi
    echo "  kernel lost (ZEV):         overrun $overrun, dropped $dropped"
    echo "  agent peak memory:         $peak"
    # none: delivered over the workload; nats: stored over the workload and the drain after it.
    [ "$name" = nats ] && delivered=$((after - before))
    [ "$name" = nats ] || server1=$server0  # the server idles through the none run
    awk -v n="$delivered" -v ns=$((end - start)) -v cpu=$((cpu1 - cpu0)) -v server=$((server1 - server0)) 'BEGIN {
        printf "  messages per second:       %.0f\n", n / (ns / 1e9)
        printf "  agent CPU per message:     %.0f ns\n", cpu / n
        if (server > 0) printf "  nats-server CPU per message: %.0f ns\n", server / n }'
    return 0
}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
run none --format=none
run nats --output=nats://127.0.0.1:"$port" --nats-stream=FTRACE_BENCH --nats-buffer="${NATS_BUFFER:-512MiB}"
exit 0
