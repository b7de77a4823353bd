'use strict';
// npm install / npm rebuild: takes the prebuilt module when one is for the running Node and nothing else was asked
// for; otherwise builds zelbridge.node with node-gyp (npm's own) into build/Release, for the runtime that npm's knobs
// name (npm_config_nodedir, npm_config_target, npm_config_runtime, npm_config_dist_url...) or else for the running
// Node. A missing build prerequisite ends the install with one line that names it and its Debian package.
const fs = require('node:fs');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { nodeGypScript, buildsForRunningNode, headerArgs, runningNodeDir } = require('./node-gyp.js');
const { prebuilds, readRecord, runningRuntime, differences } = require('../lib/buildrecord.js');

const packageDir = path.resolve(__dirname, '..');

class Missing extends Error {}

const works = (command, args, options = {}) => {
  const r = spawnSync(command, args, { encoding: 'utf8', ...options });
  return !r.error && r.status === 0;
};
const need = (ok, what, pkg) => {
  if (!ok) throw new Missing(`missing ${what}: install it with "apt-get install ${pkg}"`);
};
const truthy = (v) => v !== undefined && !['', '0', 'false', 'off', 'no'].includes(String(v).toLowerCase());

/** Checks every build prerequisite, in the order a new machine lacks them. */
function checkPrerequisites() {
  need(works('python3', ['-c', 'import sys; sys.exit(sys.version_info < (3, 6))']), 'Python 3 (node-gyp runs it)',
    'python3');
  need(works('make', ['--version']), 'make', 'make');
  const cxx = process.env.CXX || 'g++';
  const probe = '#include <concepts>\n#include <span>\ntemplate <class T> requires std::integral<T> T f(T t) { return t; }\n';
  need(works(cxx, ['-std=c++20', '-fsyntax-only', '-x', 'c++', '-'], { input: probe }),
    `a C++20 compiler (${cxx}; g++ 10 or newer)`, 'g++');
  need(works('pkg-config', ['--version']), 'pkg-config', 'pkg-config');
  need(works('pkg-config', ['--exists', 'x11']), 'the X11 development headers (X11/Xlib.h)', 'libx11-dev');
  need(works('pkg-config', ['--exists', 'xi']), 'the XInput2 development headers (X11/extensions/XInput2.h)',
    'libxi-dev');
  // Debian's own Node keeps its headers in a package of their own; any other runtime's come from its dist URL.
  const debianNode = fs.realpathSync(process.execPath) === '/usr/bin/node' && fs.existsSync('/usr/share/doc/nodejs');
  need(!(buildsForRunningNode() && debianNode && !runningNodeDir()), "the headers of Debian's Node", 'libnode-dev');
}

/** The prebuilt module for the running Node, if there is one and it loads here; else null. */
function matchingPrebuild() {
  const running = runningRuntime();
  for (const candidate of prebuilds()) {
    const record = readRecord(candidate);
    if (!record || differences(record, running).length > 0) continue;
    // It must load, too: it needs a C library as new as the one it was built with.
    const load = spawnSync(process.execPath, ['-e', `require(${JSON.stringify(candidate.module)})`], { encoding: 'utf8' });
    if (load.status === 0) return candidate;
    console.log(`zelbridge: the prebuilt ${path.relative(packageDir, candidate.module)} does not load here ` +
      `(${load.stderr.trim().split('\n').find((l) => /Error/.test(l)) || `status ${load.status}`}); building from source`);
  }
  return null;
}

function install() {
  const fromSource = truthy(process.env.npm_config_build_from_source) || process.argv.includes('--build-from-source');
  if (!fromSource && buildsForRunningNode()) {
    const prebuild = matchingPrebuild();
    if (prebuild) {
      const { runtime, version, moduleVersion } = runningRuntime();
      console.log(`zelbridge: using ${path.relative(packageDir, prebuild.module)} for ${runtime} ${version} ` +
        `(module version ${moduleVersion}); nothing to build`);
      return;
    }
  }
  checkPrerequisites();
  const r = spawnSync(process.execPath, [nodeGypScript(), 'rebuild', ...headerArgs(), '--jobs=max'],
    { cwd: packageDir, stdio: 'inherit' });
  if (r.error || r.status !== 0) throw new Error(`zelbridge: the build failed (node-gyp's output is above)`);
  const record = JSON.parse(fs.readFileSync(path.join(packageDir, 'build', 'Release', 'zelbridge-build.json'), 'utf8'));
  console.log(`zelbridge: built build/Release/zelbridge.node for ${record.runtime} ${record.version} ` +
    `(module version ${record.moduleVersion}, V8 defines: ${record.v8Defines.join(' ') || 'none'})`);
}

try {
  install();
} catch (e) {
  console.error(e instanceof Missing ? `zelbridge: cannot build: ${e.message}` : e.message);
  process.exit(1);
}
