#!/usr/bin/env bash
# The agent benchmark: zerva-snmp-agent against the baseline agent (the same
# table shapes served from memory by a bare Net-SNMP agent); the scenarios
# and their figures are described at the top of bench/agent_bench.py.
#
#   bench/run_agent_bench.sh [--runs N] [--skip-codec] [--json FILE]
#
# Builds what it needs in build-bench/ (or $BUILD_DIR, RelWithDebInfo, -j2),
# then runs bench/agent_bench.py on that build. --help builds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

export BUILD_DIR="${BUILD_DIR:-build-bench}"
for arg in "$@"; do
  case "$arg" in
    -h | --help) exec python3 bench/agent_bench.py "$@" ;;
  esac
done

if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  GENERATOR="Unix Makefiles"
  if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi
  cmake -S . -B "$BUILD_DIR" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_BENCH=ON >/dev/null
fi
cmake --build "$BUILD_DIR" -j 2 --target zerva-snmp-agent zerva-array-sim zerva-sim-ctl baseline_agent \
  tlv_codec_bench snmp_zerva_performance

exec python3 bench/agent_bench.py "$@"
