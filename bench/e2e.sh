#!/bin/bash
# End to end, for both latency settings of the agent side by side (batch,
# then low, ROUNDS times): ftrace-agent subscribed to sched:sched_switch (no
# output) while `perf bench sched pipe` runs, and exec_latency quiet and
# during a storm; then `perf record` of the same event on the same workload as
# the peer. Prints records delivered, records the kernel lost, CPU time of each
# tracer and the exec latencies, and one table of both settings. Needs root
# and tracefs; no other user of the instance ZEV may run meanwhile.
#
#   bench/e2e.sh [build dir, default build-perf]
#   LOOPS=200000 (storm), ROUNDS=1, SPAWNS=200 (quiet execs), MIXED_LOOPS=2000000 (storm beside the execs),
#   PLACEMENTS="one two" (the storm's two processes on one CPU, on two CPUs, or "free": the scheduler's choice)
#
# Where the scheduler puts perf bench's two processes decides the storm's
# rate (on one CPU some ten times faster), and with it what a pass of the
# reader finds: each placement is pinned and compared with batch on its own.
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=${1:-$HERE/../build-perf}
BUILD=$(cd "$BUILD" && pwd)
LOOPS=${LOOPS:-200000}
ROUNDS=${ROUNDS:-1}
SPAWNS=${SPAWNS:-200}
MIXED_LOOPS=${MIXED_LOOPS:-2000000}
PLACEMENTS=${PLACEMENTS:-one two}
AGENT=$BUILD/bin/ftrace-agent
LATENCY=$BUILD/bin/exec_latency
ZEV=/sys/kernel/tracing/instances/ZEV
WORK=$(mktemp -d /tmp/ftrace_e2e_XXXXXX)
agent_pid=
perf_pid=

cleanup() {
    [ -n "$agent_pid" ] && kill -INT "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
    [ -n "$perf_pid" ] && kill -INT "$perf_pid" 2>/dev/null && wait "$perf_pid" 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT

[ -x "$AGENT" ] || { echo "no $AGENT: build it first" >&2; exit 1; }
[ -x "$LATENCY" ] || { echo "no $LATENCY: build it first" >&2; exit 1; }
command -v perf > /dev/null || { echo "perf is not installed" >&2; exit 1; }

# CPU nanoseconds of every thread of a process so far (user + system).
cpu_ns() {
    local total=0 t
    for t in /proc/"$1"/task/*/schedstat; do
        total=$((total + $(cut -d' ' -f1 "$t")))
    done
    echo "$total"
}

# Sum of one per_cpu/cpuN/stats counter of ZEV over all CPUs.
zev_stat() {
    local total=0 f v
    for f in "$ZEV"/per_cpu/cpu*/stats; do
        v=$(sed -n "s/^$1: *//p" "$f")
        total=$((total + ${v:-0}))
    done
    echo "$total"
}

wait_for() {  # condition, seconds
    local deadline=$((SECONDS + $2))
    until eval "$1"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# The agent loads every shared object of its module directory: give it one
# holding the module only.
mkdir "$WORK/modules"
ln -s "$BUILD/lib/libftrace_module.so" "$WORK/modules/"

# pipe_storm <placement> <output>: perf bench sched pipe -l $LOOPS, its two processes placed.
pipe_storm() {
    case $1 in
    one) taskset -c 1 perf bench sched pipe -l "$LOOPS" > "$2" ;;
    two)
        perf bench sched pipe -l "$LOOPS" > "$2" &
        local bench=$! child=
        wait_for '[ -n "$(pgrep -P $bench)" ] || ! kill -0 $bench 2>/dev/null' 5 || true
        taskset -pc 0 "$bench" > /dev/null || true
        for child in $(pgrep -P "$bench"); do taskset -pc 1 "$child" > /dev/null || true; done
        wait "$bench"
        ;;
    *) perf bench sched pipe -l "$LOOPS" > "$2" ;;
    esac
}

# storm <setting> <round> <placement>: one agent run; appends
# "setting round placement delivered lost cpu_ns us_per_loop" to $WORK/storm.
storm() {
    echo "== ftrace-agent --latency=$1 --events=sched:sched_switch --format=none, perf bench sched pipe -l $LOOPS on $3 CPU(s)"
    "$AGENT" --module-dir="$WORK/modules" --latency="$1" --events=sched:sched_switch --format=none --log-level=warning \
        > "$WORK/agent.out" 2> "$WORK/agent.err" &
    agent_pid=$!
    wait_for '[ "$(cat $ZEV/events/sched/sched_switch/enable 2>/dev/null)" = 1 ] || ! kill -0 $agent_pid 2>/dev/null' 10
    if ! kill -0 "$agent_pid" 2>/dev/null || [ "$(cat $ZEV/events/sched/sched_switch/enable 2>/dev/null)" != 1 ]; then
        echo "the agent did not start tracing:" >&2
        cat "$WORK/agent.err" >&2
        exit 1
    fi
    # ZEV may have existed before (it is adopted then): count the difference.
    local overrun0 dropped0 cpu0 cpu1 overrun dropped utime_stime delivered agent_cpu_ns
    overrun0=$(zev_stat overrun); dropped0=$(zev_stat "dropped events")
    cpu0=$(cpu_ns "$agent_pid")
    pipe_storm "$3" "$WORK/pipe.out"
    sleep 1.5  # the agent's bounded wait: whatever is still buffered is read by now
    cpu1=$(cpu_ns "$agent_pid")
    overrun=$(( $(zev_stat overrun) - overrun0 )); dropped=$(( $(zev_stat "dropped events") - dropped0 ))
    utime_stime=$(awk '{print $14 + $15}' /proc/"$agent_pid"/stat)
    kill -INT "$agent_pid"
    wait "$agent_pid" || true
    agent_pid=
    delivered=$(sed -n 's/^ftrace-agent summary: \([0-9]*\) messages.*/\1/p' "$WORK/agent.err")
    sed -n '/^ftrace-agent summary/,$p' "$WORK/agent.err" | sed 's/^/  /'
    agent_cpu_ns=$((cpu1 - cpu0))
    echo "  pipe benchmark: $(grep -E 'usecs/op' "$WORK/pipe.out" | sed 's/^ *//')"
    echo "  records delivered:         ${delivered:-?}"
    echo "  kernel lost (ZEV):         overrun $overrun, dropped $dropped"
    echo "  agent CPU during the run:  $(awk -v n="$agent_cpu_ns" 'BEGIN{printf "%.3f s", n/1e9}') (whole life: $(awk -v t="$utime_stime" -v hz="$(getconf CLK_TCK)" 'BEGIN{printf "%.2f s", t/hz}') user+sys)"
    if [ -n "${delivered:-}" ] && [ "$delivered" -gt 0 ]; then
        echo "  agent CPU per record:      $(awk -v n="$agent_cpu_ns" -v r="$delivered" 'BEGIN{printf "%.0f ns", n/r}')"
    fi
    echo "$1 $2 $3 ${delivered:-0} $((overrun + dropped)) $agent_cpu_ns $(awk '/usecs\/op/ {print $1}' "$WORK/pipe.out")" >> "$WORK/storm"
}

[ "$(nproc)" -ge 2 ] || PLACEMENTS=free
for round in $(seq "$ROUNDS"); do
    for placement in $PLACEMENTS; do
        for setting in batch low; do storm "$setting" "$round" "$placement"; done
    done
done
echo "== exec latency, $SPAWNS spawns of /bin/true at 20/s"
"$LATENCY" --count="$SPAWNS" --module="$BUILD/lib/libftrace_module.so" | tee -a "$WORK/latency" || true
echo "== exec latency while perf bench sched pipe -l $MIXED_LOOPS runs, sched:sched_switch taken too"
"$LATENCY" --storm="$MIXED_LOOPS" --module="$BUILD/lib/libftrace_module.so" | tee -a "$WORK/latency" || true

echo "== peer: perf record -e sched:sched_switch -a, same workload"
perf record -q -e sched:sched_switch -a -N -B -o "$WORK/perf.data" > "$WORK/perf.out" 2>&1 &
perf_pid=$!
sleep 1  # perf sets up its buffers
pcpu0=$(cpu_ns "$perf_pid")
perf bench sched pipe -l "$LOOPS" > "$WORK/pipe2.out"
sleep 1.5
pcpu1=$(cpu_ns "$perf_pid")
kill -INT "$perf_pid"
wait "$perf_pid" || true
perf_pid=
perf_records=$(perf script -i "$WORK/perf.data" -F event 2>/dev/null | wc -l)
perf_lost=$(perf report -i "$WORK/perf.data" --stats 2>/dev/null | awk '/LOST events/ {n += $NF} END {print n + 0}')
perf_lost_samples=$(perf report -i "$WORK/perf.data" --stats 2>/dev/null | awk '/LOST_SAMPLES events/ {n += $NF} END {print n + 0}')
perf_cpu_ns=$((pcpu1 - pcpu0))
echo "  pipe benchmark: $(grep -E 'usecs/op' "$WORK/pipe2.out" | sed 's/^ *//')"
echo "  records written:           $perf_records"
echo "  lost:                      LOST events $perf_lost, LOST_SAMPLES $perf_lost_samples"
echo "  perf CPU during the run:   $(awk -v n="$perf_cpu_ns" 'BEGIN{printf "%.3f s", n/1e9}')"
if [ "$perf_records" -gt 0 ]; then
    echo "  perf CPU per record:       $(awk -v n="$perf_cpu_ns" -v r="$perf_records" 'BEGIN{printf "%.0f ns", n/r}')"
fi

echo "== both settings (storm: perf bench sched pipe -l $LOOPS; ratio against batch of the same round and placement)"
printf '%-6s %-5s %-9s %9s %10s %6s %9s %9s\n' setting round placement "us/loop" delivered lost "ns/rec" "x batch"
while read -r setting round placement delivered lost cpu loop; do
    per=$(awk -v n="$cpu" -v r="$delivered" 'BEGIN{ if (r > 0) printf "%.0f", n/r; else print "-" }')
    base=$(awk -v r="$round" -v p="$placement" '$1 == "batch" && $2 == r && $3 == p { if ($4 > 0) printf "%.0f", $6/$4 }' "$WORK/storm")
    ratio=$(awk -v p="$per" -v b="$base" 'BEGIN{ if (b > 0 && p > 0) printf "%.2f", p/b; else print "-" }')
    printf '%-6s %-5s %-9s %9.1f %10s %6s %9s %9s\n' "$setting" "$round" "$placement" "${loop:-0}" "$delivered" "$lost" \
        "$per" "$ratio"
done < "$WORK/storm"
printf '\n%-6s %-32s %-32s\n' setting "exec quiet p50/p99/max (ms)" "exec in a storm p50/p99/max (ms)"
latency_of() {  # setting quiet|storm -> "p50/p99/max (n of m)"
    sed -n "s/^exec latency $1 $2: \([0-9]*\) of \([0-9]*\) .*p50 \([0-9.]*\) ms, p99 \([0-9.]*\) ms, max \([0-9.]*\) ms/\3\/\4\/\5 (\1\/\2)/p" "$WORK/latency"
}
for setting in batch low; do
    printf '%-6s %-32s %-32s\n' "$setting" "$(latency_of "$setting" quiet)" "$(latency_of "$setting" storm)"
done
