#!/usr/bin/env bash
# Runs tlv_codec_bench (3 repetitions) and prints, for each benchmark, the
# median throughput and its ratio to memcpy of the same package variant.
#
#   bench/run_codec_bench.sh [extra benchmark flags...]
#
# Uses build-bench/ (or $BUILD_DIR), configuring and building it with the
# default compiler in RelWithDebInfo when the binary is not there yet.
# MB/s is 10^6 bytes per second over the encoded size of the package.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-bench}"
BIN="$BUILD_DIR/bench/tlv_codec_bench"

if [ ! -x "$BIN" ]; then
  GENERATOR="Unix Makefiles"
  if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi
  cmake -S . -B "$BUILD_DIR" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZERVA_BUILD_TESTS=OFF -DZERVA_BUILD_BENCH=ON >/dev/null
  cmake --build "$BUILD_DIR" -j "$(nproc)" --target tlv_codec_bench
fi

JSON="$(mktemp "${TMPDIR:-/tmp}/tlv_codec_bench.XXXXXX.json")"
trap 'rm -f "$JSON"' EXIT

echo "== $(nproc) CPU(s): $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
"$BIN" --benchmark_format=json --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  "$@" >"$JSON"

python3 - "$JSON" <<'EOF'
import json
import sys

with open(sys.argv[1]) as f:
    report = json.load(f)

# run_name is "BM_Decode/stats"; keep the medians only.
medians = {}
order = []
for b in report["benchmarks"]:
    if b.get("run_type") != "aggregate" or b.get("aggregate_name") != "median":
        continue
    name = b["run_name"]
    medians[name] = b
    order.append(name)

def variant(name):
    return name.split("/", 1)[1] if "/" in name else ""

# Variants in the order the binary runs them (stats, then large).
variants = []
for n in order:
    if variant(n) not in variants:
        variants.append(variant(n))

print("%-28s %12s %10s %12s %9s" % ("benchmark", "MB/s", "time us", "vs memcpy", "records"))
for name in sorted(order, key=lambda n: (variants.index(variant(n)), order.index(n))):
    b = medians[name]
    mbs = b.get("bytes_per_second", 0.0) / 1e6
    base = medians.get("BM_Memcpy/" + variant(name))
    ratio = ""
    if base and base.get("bytes_per_second"):
        ratio = "%.4f" % (b["bytes_per_second"] / base["bytes_per_second"])
    t = b["real_time"]
    unit = b.get("time_unit", "us")
    scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}.get(unit, 1.0)
    print("%-28s %12.1f %10.1f %12s %9d" % (name, mbs, t * scale, ratio, int(b.get("records", 0))))
sizes = {variant(n): int(medians[n].get("size", 0)) for n in order}
print("package sizes (bytes): " + ", ".join("%s=%d" % (v, sizes[v]) for v in variants))
EOF
