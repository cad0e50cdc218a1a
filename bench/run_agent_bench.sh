#!/usr/bin/env bash
# The agent benchmark: zerva-snmp-agent against the baseline agent (the same
# table shapes served from memory by a bare Net-SNMP agent); the scenarios
# and their figures are described at the top of bench/agent_bench.py.
#
#   bench/run_agent_bench.sh [--runs N] [--skip-codec] [--json FILE]
#
# Builds what it needs (bench/build_bench.sh: build-bench/ or $BUILD_DIR),
# then runs bench/agent_bench.py on that build. --help builds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

export BUILD_DIR="${BUILD_DIR:-build-bench}"
for arg in "$@"; do
  case "$arg" in
    -h | --help) exec python3 bench/agent_bench.py "$@" ;;
  esac
done

bench/build_bench.sh

exec python3 bench/agent_bench.py "$@"
