#!/usr/bin/env bash
# The latency benchmark: the agent in front of a slow array; the scenarios
# and their figures are described at the top of bench/latency_bench.py.
#
#   bench/run_latency_bench.sh [--runs N] [--latencies 0,1,5] [--only L1,L2,L3,L4] [--json FILE]
#
# Builds what it needs (bench/build_bench.sh: build-bench/ or $BUILD_DIR),
# then runs bench/latency_bench.py on that build. --help builds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

export BUILD_DIR="${BUILD_DIR:-build-bench}"
for arg in "$@"; do
  case "$arg" in
    -h | --help) exec python3 bench/latency_bench.py "$@" ;;
  esac
done

bench/build_bench.sh

exec python3 bench/latency_bench.py "$@"
