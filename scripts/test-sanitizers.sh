#!/usr/bin/env bash
# npm run test:sanitizers: the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer (preset "asan"),
# then the threading tests (label "threads") under ThreadSanitizer (preset "tsan"). Both presets run even when
# the first fails; the status is that of the first failure.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0
for preset in asan tsan; do
  echo "=== sanitizers: preset $preset"
  if bash scripts/test.sh "$preset"; then
    echo "=== sanitizers: preset $preset passed"
  else
    code=$?
    echo "=== sanitizers: preset $preset FAILED (status $code)"
    [ "$status" -eq 0 ] && status=$code
  fi
done
exit "$status"
