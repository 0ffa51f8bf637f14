#!/bin/bash
# Builds the benchmarks in Release (build-perf) and runs all three: the record
# path against its floor and the text decoder, the agent end to end against
# perf record, and the exec latency. Needs root and tracefs for the last two.
# Not part of CI. Run it on a quiet machine: the figures are wall-clock based.
#
#   bench/run.sh [build dir, default build-perf]
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/.." && pwd)
BUILD=${1:-$ROOT/build-perf}

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release > /dev/null
cmake --build "$BUILD" -j2 --target ftrace_module ftrace-agent record_path_bench record_path_bench_glibc exec_latency

echo "== load before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "== record path, with the agent's allocator (ns per record; one iteration is one page)"
"$BUILD/bin/record_path_bench" --benchmark_min_time=0.5 --benchmark_repetitions=5
echo
echo "== record path, with glibc's allocator"
"$BUILD/bin/record_path_bench_glibc" --benchmark_min_time=0.5 --benchmark_repetitions=5

echo
echo "== end to end"
"$HERE/e2e.sh" "$BUILD"

echo
echo "== publishing to NATS JetStream against --format=none"
if command -v nats-server > /dev/null; then "$HERE/nats.sh" "$BUILD"; else echo "nats-server is not installed: skipped"; fi

echo
echo "== exec latency (spawn of /bin/true to the subscriber's receipt of its exec message)"
"$BUILD/bin/exec_latency" --rate=20 --count=200 --module="$BUILD/lib/libftrace_module.so"
