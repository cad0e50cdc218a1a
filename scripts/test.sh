#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the unit and
# integration tests in a normal build, the Debian packages built, checked
# with lintian and (as root) installed, served, reloaded and purged, the same
# suite under AddressSanitizer and UndefinedBehaviorSanitizer, and a bounded
# libFuzzer run.
#
#   scripts/test.sh            everything
#   FUZZ_SECONDS=0 scripts/test.sh    skip the fuzz run
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_SECONDS="${FUZZ_SECONDS:-30}"
JOBS="$(nproc)"

scripts/deps.sh

# ccache (installed by scripts/deps.sh) makes the rebuild of an unchanged
# file cheap, from another checkout of the tree too: paths are taken
# relative to the tree and the working directory is not hashed.
LAUNCHER=()
if command -v ccache >/dev/null 2>&1; then
  export CCACHE_BASEDIR="$(pwd)" CCACHE_NOHASHDIR=1
  LAUNCHER=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

echo "== format"
scripts/check_format.sh

echo "== normal build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_BENCH=ON -DZERVA_WERROR=ON \
  "${LAUNCHER[@]}" >/dev/null
cmake --build build -j "$JOBS"
echo "== tests"
ctest --test-dir build --output-on-failure -j "$JOBS"

echo "== Debian packages (dpkg-buildpackage, lintian)"
scripts/package.sh build-packages
echo "== package test (install, run as the units do, reload, purge)"
python3 tests/package/package_test.py build-packages

echo "== sanitizer build (ASan + UBSan)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZERVA_SANITIZE=ON -DZERVA_BUILD_BENCH=OFF -DZERVA_WERROR=ON \
  "${LAUNCHER[@]}" >/dev/null
cmake --build build-asan -j "$JOBS"
echo "== tests under sanitizers"
ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
  ctest --test-dir build-asan --output-on-failure -j "$JOBS"

if [ "$FUZZ_SECONDS" -gt 0 ]; then
  echo "== fuzz smoke run (${FUZZ_SECONDS}s per target)"
  fuzz/run.sh "$FUZZ_SECONDS"
fi

echo "== all tests passed"
