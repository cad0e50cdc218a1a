#!/usr/bin/env bash
# Builds the programs the agent and latency benchmarks run, in $BUILD_DIR
# (default build-bench/; configured RelWithDebInfo with the benchmarks on
# when it has no CMake cache yet), with 2 jobs.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-bench}"
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  GENERATOR="Unix Makefiles"
  if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi
  cmake -S . -B "$BUILD_DIR" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_BENCH=ON >/dev/null
fi
cmake --build "$BUILD_DIR" -j 2 --target zerva-snmp-agent zerva-array-sim zerva-sim-ctl baseline_agent \
  walk_latency tlv_codec_bench snmp_zerva_performance
