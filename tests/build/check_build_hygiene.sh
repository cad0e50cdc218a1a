#!/usr/bin/env bash
# The build and the test command fail loudly: on a copy of the tree,
#  1. configure fails, naming the file, when a listed source or test is missing;
#  2. scripts/check_format.sh fails, naming the file, on an unformatted file;
#  3. a -Werror build fails on a new warning.
# usage: check_build_hygiene.sh SOURCE_DIR
set -euo pipefail
src="$(cd "$1" && pwd)"
work="$(mktemp -d "${TMPDIR:-/tmp}/zerva-hygiene.XXXXXX")"
trap 'rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

# A copy of the files git knows or would add (and a git index, for
# check_format.sh), as they are in the working tree.
tree="$work/tree"
mkdir -p "$tree"
git -C "$src" ls-files -z --cached --others --exclude-standard | (cd "$src" && xargs -0 cp --parents -t "$tree")
git -C "$tree" init -q && git -C "$tree" add -A

configure() {  # configure BUILD_DIR: the project's configure step, output in BUILD_DIR.log
  cmake -S "$tree" -B "$1" -G Ninja -DZERVA_WERROR=ON -DZERVA_BUILD_BENCH=ON >"$1.log" 2>&1
}

# 1. Missing sources, one library source and one test source.
for victim in diag/vem_debug_kit_guard.cpp sim/fault_test.cpp; do
  mv "$tree/$victim" "$work/saved"
  if configure "$work/b-missing"; then fail "configure succeeded without $victim"; fi
  grep -q "$(basename "$victim")" "$work/b-missing.log" || {
    cat "$work/b-missing.log" >&2
    fail "configure's error does not name $victim"
  }
  mv "$work/saved" "$tree/$victim"
  rm -rf "$work/b-missing" "$work/b-missing.log"
  echo "ok: configure fails naming a missing $victim"
done

# 2. An unformatted file.
"$tree/scripts/check_format.sh" >/dev/null || fail "the pristine copy is not formatted"
printf 'int   badly_formatted ( ) {return 1;}\n' >>"$tree/diag/vem_debug_kit_guard.cpp"
if "$tree/scripts/check_format.sh" 2>"$work/format.err"; then fail "check_format.sh accepted an unformatted file"; fi
grep -q "diag/vem_debug_kit_guard.cpp" "$work/format.err" || fail "check_format.sh does not name the file"
git -C "$tree" checkout -q -- diag/vem_debug_kit_guard.cpp
echo "ok: check_format.sh fails naming an unformatted file"

# 3. A warning under -Werror: an unused variable in one library source.
configure "$work/b" || fail "configure of the pristine copy failed (see $work/b.log)"
obj="diag/CMakeFiles/zerva_diag.dir/vem_debug_kit_guard.cpp.o"
cmake --build "$work/b" --target "$obj" >/dev/null 2>&1 || fail "the pristine source does not build"
printf '\nint zerva_hygiene_probe() {\n  int unused = 0;\n  return 1;\n}\n' >>"$tree/diag/vem_debug_kit_guard.cpp"
if cmake --build "$work/b" --target "$obj" >"$work/werror.log" 2>&1; then fail "a warning did not fail the build"; fi
grep -q "unused" "$work/werror.log" || fail "the build failed for another reason than the warning"
echo "ok: a warning fails the -Werror build"
