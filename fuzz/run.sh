#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz/ and
# runs each one for a bounded time on a copy of its seed corpus.
#
#   fuzz/run.sh [seconds] [libFuzzer flags...]
#
# seconds per target, 60 by default; further arguments go to every target
# (e.g. -max_len=70000 to let inputs grow past the 4096-byte default).
#
# Exits non-zero when a target crashes, leaks, times out or runs out of
# memory; the input that did it is kept in build-fuzz/artifacts/<target>/.
# Without clang++ (or its fuzzer runtime) there is nothing to run: the script
# says so and exits 0.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_PER_TARGET="${1:-60}"
shift || true
EXTRA_FLAGS=("$@")
if ! [[ "$SECONDS_PER_TARGET" =~ ^[0-9]+$ ]] || [ "$SECONDS_PER_TARGET" -le 0 ]; then
  echo "usage: $0 [seconds] [libFuzzer flags...]   (a positive number of seconds per target)" >&2
  exit 2
fi

if ! command -v clang++ >/dev/null 2>&1 || ! command -v clang >/dev/null 2>&1; then
  echo "fuzz: clang/clang++ not installed, skipping the fuzz run"
  exit 0
fi

WORK="$(mktemp -d "${TMPDIR:-/tmp}/zerva-fuzz.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT

# clang without the compiler-rt fuzzer runtime cannot link a fuzz target.
cat >"$WORK/probe.cpp" <<'EOF'
#include <cstddef>
#include <cstdint>
extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }
EOF
if ! clang++ -fsanitize=fuzzer,address,undefined "$WORK/probe.cpp" -o "$WORK/probe" >/dev/null 2>&1; then
  echo "fuzz: clang++ cannot link -fsanitize=fuzzer: install clang and libclang-rt-14-dev (scripts/deps.sh)" >&2
  exit 1
fi

GENERATOR="Unix Makefiles"
if command -v ninja >/dev/null 2>&1; then GENERATOR="Ninja"; fi

# ccache when installed (see scripts/test.sh).
LAUNCHER=()
if command -v ccache >/dev/null 2>&1; then
  export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$(pwd)}" CCACHE_NOHASHDIR=1
  LAUNCHER=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

echo "== configuring build-fuzz"
cmake -S . -B build-fuzz -G "$GENERATOR" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DZERVA_BUILD_FUZZ=ON -DZERVA_BUILD_TESTS=OFF -DZERVA_BUILD_BENCH=OFF -DZERVA_WERROR=ON "${LAUNCHER[@]}" >/dev/null
echo "== building build-fuzz"
cmake --build build-fuzz -j "$(nproc)"

# Every fuzz target is an executable named *_fuzz in build-fuzz/fuzz.
mapfile -t TARGETS < <(find build-fuzz/fuzz -maxdepth 1 -type f -name '*_fuzz' -perm -u+x | sort)
if [ ${#TARGETS[@]} -eq 0 ]; then
  echo "fuzz: no fuzz target was built" >&2
  exit 1
fi

# UBSan findings abort the input, so libFuzzer reports them as crashes.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

status=0
for target in "${TARGETS[@]}"; do
  name="$(basename "$target")"
  # tlv_decode_fuzz -> fuzz/corpus/decode, mib_description_fuzz ->
  # fuzz/corpus/mib_description, agent_config_fuzz -> fuzz/corpus/agent_config
  short="${name%_fuzz}"
  short="${short#tlv_}"
  corpus="$WORK/corpus-$name"
  mkdir -p "$corpus"
  if [ -d "fuzz/corpus/$short" ]; then
    cp -r "fuzz/corpus/$short/." "$corpus/"
  fi
  artifacts="build-fuzz/artifacts/$name"
  mkdir -p "$artifacts"
  log="$WORK/$name.log"

  echo "== $name: ${SECONDS_PER_TARGET}s on $(find "$corpus" -type f | wc -l) seed(s)"
  rc=0
  "$target" -max_total_time="$SECONDS_PER_TARGET" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" ${EXTRA_FLAGS[@]+"${EXTRA_FLAGS[@]}"} \
    "$corpus" >"$log" 2>&1 || rc=$?

  runs="$(grep -aEo 'Done [0-9]+ runs' "$log" | tail -n 1 || true)"
  # libFuzzer's last status line: edges and features covered.
  cov="$(grep -aE '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1 | grep -aEo 'cov: [0-9]+ ft: [0-9]+' || true)"
  if [ "$rc" -ne 0 ]; then
    echo "!! $name failed (exit $rc); last lines of its output:"
    tail -n 60 "$log"
    echo "!! inputs kept in $artifacts/"
    status=1
  else
    echo "   $name: ${runs:-no run count reported} in ${SECONDS_PER_TARGET}s," \
         "${cov:+$cov, }corpus now $(find "$corpus" -type f | wc -l) inputs"
    grep -aE '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$log" | sed 's/^/   /' || true
  fi
done

if [ "$status" -ne 0 ]; then
  echo "== fuzz run FAILED"
else
  echo "== fuzz run passed"
fi
exit "$status"
