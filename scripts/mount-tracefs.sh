#!/usr/bin/env bash
# Mounts tracefs at /sys/kernel/tracing when it is not mounted yet.
set -euo pipefail
if [ ! -e /sys/kernel/tracing/trace ]; then
    mount -t tracefs nodev /sys/kernel/tracing 2>/dev/null ||
        echo "warning: could not mount tracefs at /sys/kernel/tracing" >&2
fi
