#!/usr/bin/env bash
# Fails, listing the files, when a C or C++ file differs from what .clang-format makes of it.
# npm run format rewrites them.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "check-format: clang-format is missing (apt-get install clang-format)" >&2; exit 1; }
drift=()
while IFS= read -r -d '' file; do
  clang-format --dry-run --Werror "$file" >/dev/null 2>&1 || drift+=("$file")
done < <(git ls-files -z '*.c' '*.cpp' '*.h')
if [ ${#drift[@]} -gt 0 ]; then
  echo "check-format: not formatted as .clang-format says (run npm run format):" >&2
  printf '  %s\n' "${drift[@]}" >&2
  exit 1
fi
echo "check-format: every C and C++ file is formatted"
