#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build-run -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_TESTS=OFF -DZERVA_BUILD_BENCH=OFF >/dev/null
cmake --build build-run -j "$(nproc)"

echo "Built the TLV codec and the platform libraries."
echo "The SNMP agent is not part of this build yet: when it is, this command starts it"
echo "with the embedded simulated array, serving 1.3.6.1.4.1.32473.4.1.21 on udp:127.0.0.1:1161."
