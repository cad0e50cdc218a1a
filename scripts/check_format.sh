#!/usr/bin/env bash
# Fails, listing the files, when a tracked C++ file differs from what
# clang-format makes of it with the repository's .clang-format.
#   scripts/check_format.sh          check
#   scripts/check_format.sh --fix    rewrite the files in place
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi

bad=()
for f in "${files[@]}"; do
  clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if [ ${#bad[@]} -gt 0 ]; then
  echo "Not formatted (run scripts/check_format.sh --fix):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "format: ${#files[@]} files formatted"
