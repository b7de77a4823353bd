#!/usr/bin/env bash
# npm run bench: builds the "release" preset (module, tools, benchmarks), runs every
# benchmark, prints the tables, writes them to bench/results.md and the latency chart to bench/latency.svg. Extra
# arguments go to bench/run.js (--quick: shortened runs for trying the harness; --out FILE: another Markdown file;
# --chart FILE: another chart file).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/ensure-deps.sh
if [ ! -x /usr/bin/time ]; then
  if [ "$(id -u)" -eq 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq time
  else
    echo "bench: /usr/bin/time is missing (apt-get install time)" >&2
    exit 1
  fi
fi
if [ ! -d node_modules/node-addon-api ]; then
  node scripts/npm.js install --no-audit --no-fund --ignore-scripts
fi

napi_dir=$(node -p "require('path').resolve(require('node-addon-api').include_dir)")
cmake --preset release -DZEL_BUILD_BENCH=ON -DZEL_NODE_ADDON_API_DIR="$napi_dir" >/dev/null
cmake --build --preset release -j "$(nproc)" --target zelbridge zelbench_module zelbench_napi xinject xreader xhandoff format_bench
targets=$(cmake --build --preset release --target help)
if grep -q '\bcom_bench\b' <<<"$targets"; then
  cmake --build --preset release -j "$(nproc)" --target com_bench
fi

state=$(mktemp -d "${TMPDIR:-/tmp}/zelbench.XXXXXX")
trap 'rm -rf "$state"' EXIT
ZEL_BENCH_TMP="$state" ZEL_BENCH_BUILD_DIR="$PWD/build/release" node bench/run.js "$@"
