#!/usr/bin/env bash
# The fault, stop and Worker proof: the script tests js_faults and js_workers of one configured build, each run
# ROUNDS times in a row (default 20) and stopping at the first failure.
#   scripts/fault-proof.sh BUILD_DIR     e.g. build/default, build/asan, build/tsan, or a build against other headers:
#     cmake --preset default -B build/n26 -DNODE_DIR=/path/to/node-26 \
#           -DNODE_EXECUTABLE=/path/to/node-26/bin/node
# Every run sets ZEL_FAULT_ROUNDS=1 (one round of each repeated case per run) unless it is set.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
cmake --build "$1" -j2 --target zelbridge zelbridge_testkit zelbridge_throwing xinject
ZEL_FAULT_ROUNDS="${ZEL_FAULT_ROUNDS:-1}" ctest --test-dir "$1" -R '^(js_faults|js_workers)$' \
  --repeat "until-fail:${ROUNDS:-20}" --output-on-failure
