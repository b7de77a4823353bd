#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, "fuzz" preset) and runs each for SECONDS (default 30) from its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
bash scripts/ensure-deps.sh
if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ is missing (apt-get install clang)" >&2
  exit 1
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target format_fuzz strings_fuzz
for target in format strings; do
  work=$(mktemp -d)
  echo "fuzz: ${target} for ${seconds} s"
  "build/fuzz/tests/fuzz/${target}_fuzz" -max_total_time="$seconds" -max_len=512 -print_final_stats=1 \
    "$work" "tests/fuzz/corpus/${target}" 2>&1 | grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)|ERROR|SUMMARY'
  status=${PIPESTATUS[0]}
  rm -rf "$work"
  [ "$status" -eq 0 ] || { echo "fuzz: ${target} failed" >&2; exit "$status"; }
done
