#!/usr/bin/env bash
# Installs what is missing, builds, and runs ftrace-agent on its default
# events (process exec, fork and exit) until Ctrl-C. Extra arguments go to the agent.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/mount-tracefs.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target ftrace-agent
exec build/bin/ftrace-agent "$@"
