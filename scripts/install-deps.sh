#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and benchmarks with.
# Idempotent: apt-get update runs only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config g++ clang libclang-rt-dev
  libtraceevent-dev libtracefs-dev libpoco-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev libconcurrentqueue-dev
  linux-perf valgrind binutils python3 procps libjemalloc-dev
  libnats-dev nats-server openssl curl
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
