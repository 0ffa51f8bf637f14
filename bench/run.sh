#!/bin/bash
# Builds the benchmarks in Release (build-perf) and runs them: the record path
# against its floor and the text decoder, then the agent end to end against
# perf record and the exec latency, both latency settings side by side
# (e2e.sh). Needs root and tracefs for the last part.
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
echo "== end to end and exec latency, --latency=batch and low"
"$HERE/e2e.sh" "$BUILD"

echo
echo "== publishing to NATS JetStream against --format=none"
if command -v nats-server > /dev/null; then "$HERE/nats.sh" "$BUILD"; else echo "nats-server is not installed: skipped"; fi

