#!/bin/bash
# Captures raw ring-buffer pages of sched:sched_switch and sched:sched_process_exec
# from this kernel, with the formats and header page needed to decode them, into
# bench/data/. Run once as root; the result is committed and replayed by
# record_path_bench. Uses a private instance and removes it again.
#
#   bench/capture_pages.sh [pages per CPU, default 128]
set -euo pipefail

PAGES_PER_CPU=${1:-128}
HERE=$(cd "$(dirname "$0")" && pwd)
OUT="$HERE/data"
TRACING=/sys/kernel/tracing
INSTANCE="$TRACING/instances/ftrace_bench_capture_$$"
PAGE_SIZE=$(getconf PAGESIZE)

cleanup() {
    if [ -d "$INSTANCE" ]; then
        echo 0 > "$INSTANCE/tracing_on" || true
        echo > "$INSTANCE/set_event" || true
        rmdir "$INSTANCE" || true
    fi
}
trap cleanup EXIT

mkdir "$INSTANCE"
echo 1 > "$INSTANCE/events/sched/sched_switch/enable"
echo 1 > "$INSTANCE/events/sched/sched_process_exec/enable"

# Context switches from the pipe ping-pong, execs from a spawn loop beside it.
spawner() { for _ in $(seq 1 2000); do /bin/true; done; }
spawner &
spawn_pid=$!
perf bench sched pipe -l 20000 > /dev/null
wait "$spawn_pid"
echo 0 > "$INSTANCE/tracing_on"

rm -rf "$OUT/pages" "$OUT/events"
mkdir -p "$OUT/pages"
for ev in sched_switch sched_process_exec; do
    mkdir -p "$OUT/events/sched/$ev"
    cp "$INSTANCE/events/sched/$ev/format" "$OUT/events/sched/$ev/format"
done
cp "$TRACING/events/header_page" "$OUT/header_page"

for dir in "$INSTANCE"/per_cpu/cpu*; do
    cpu=${dir##*/cpu}
    # trace_pipe_raw hands out one page per read; non-blocking, so dd stops
    # at EAGAIN when the CPU has fewer pages.
    dd if="$dir/trace_pipe_raw" of="$OUT/pages/cpu$cpu.raw" bs="$PAGE_SIZE" count="$PAGES_PER_CPU" \
        iflag=nonblock status=none 2>/dev/null || true
    gzip -9 -f "$OUT/pages/cpu$cpu.raw"
done
ls -l "$OUT/pages"
