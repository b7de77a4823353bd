'use strict';
// npm as the package's own scripts run it (fetching Nodes for the prebuilt modules and the tests, installing the
// bench's dependencies): with the settings each command names itself and none of the knobs of the npm that started
// the script (npm pack --dry-run or --pack-destination, npm publish --tag, a prefix, a workspace...), except where
// the registry is, how it is reached and where its cache is. npm hands its whole configuration to the scripts it
// runs as npm_config_* variables, and an npm started from there would take them as its own.
//
//   node scripts/npm.js ARGS...     runs npm ARGS... so
const { spawnSync } = require('node:child_process');

// Where the registry is and how it is reached: kept.
const registryKnob = /^npm_config_(registry|@[^:]+:registry|\/\/.*|cache|proxy|https[-_]proxy|noproxy|cafile|ca|strict[-_]ssl)$/i;

/** `env` without npm's knobs and script variables (npm_*), but those of the registry and its cache. */
function withoutNpmKnobs(env = process.env) {
  return Object.fromEntries(Object.entries(env).filter(([key]) => !/^npm_/i.test(key) || registryKnob.test(key)));
}

/**
 * Runs npm with `args` in `cwd` and the environment above; returns its standard output. When it fails, throws an
 * Error that holds what it printed on standard error.
 */
function npm(args, cwd) {
  const r = spawnSync('npm', args, { cwd, env: withoutNpmKnobs(), encoding: 'utf8', stdio: ['ignore', 'pipe', 'pipe'] });
  if (r.error) throw r.error;
  if (r.status !== 0) throw new Error(`npm ${args.join(' ')} failed (status ${r.status}):\n${r.stderr.trim()}`);
  return r.stdout;
}

if (require.main === module) {
  const r = spawnSync('npm', process.argv.slice(2), { env: withoutNpmKnobs(), stdio: 'inherit' });
  process.exit(r.error ? 1 : r.status ?? 1);
}

module.exports = { withoutNpmKnobs, npm };
