#!/usr/bin/env bash
# The latency benchmark: the agent in front of a slow array; the scenarios
# and their figures are described at the top of bench/latency_bench.py.
#
#   bench/run_latency_bench.sh [--runs N] [--latencies 0,1,5] [--only L1,L2,L3,L4] [--json FILE]
#
# Builds what it needs in build-bench/ (or $BUILD_DIR, RelWithDebInfo, -j2),
# then runs bench/latency_bench.py on that build. --help builds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

export BUILD_DIR="${BUILD_DIR:-build-bench}"
for arg in "$@"; do
  case "$arg" in
    -h | --help) exec python3 bench/latency_bench.py "$@" ;;
  esac
done

if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  GENERATOR="Unix Makefiles"
  if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi
  cmake -S . -B "$BUILD_DIR" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_BENCH=ON >/dev/null
fi
cmake --build "$BUILD_DIR" -j 2 --target zerva-snmp-agent zerva-array-sim zerva-sim-ctl baseline_agent \
  walk_latency snmp_zerva_performance

exec python3 bench/latency_bench.py "$@"
