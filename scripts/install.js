'use strict';
// npm install / npm rebuild: builds zelbridge.node alone, in release mode, into build/module, for the runtime that
// npm names (npm_config_nodedir, npm_config_target, npm_config_runtime) or else for the Node that runs this script.
// A missing prerequisite ends the install with one line that names it and the Debian package that provides it.
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { resolveHeaders } = require('../cmake/node-headers.js');

const packageDir = path.resolve(__dirname, '..');
const buildDir = path.join(packageDir, 'build', 'module');
const minimumCMake = [3, 18];

class Missing extends Error {}

const run = (command, args, options = {}) =>
  spawnSync(command, args, { encoding: 'utf8', cwd: packageDir, ...options });
const works = (command, args, options) => {
  const r = run(command, args, options);
  return !r.error && r.status === 0 ? r : null;
};
const need = (ok, what, pkg) => {
  if (!ok) throw new Missing(`missing ${what}: install it with "apt-get install ${pkg}"`);
};

/** Checks every build prerequisite; returns the CMake generator arguments to use. */
function checkPrerequisites() {
  const cmake = works('cmake', ['--version']);
  need(cmake, 'CMake', 'cmake');
  const version = (/cmake version (\d+)\.(\d+)/.exec(cmake.stdout) || []).slice(1).map(Number);
  const older = version[0] < minimumCMake[0] || (version[0] === minimumCMake[0] && version[1] < minimumCMake[1]);
  need(!older, `CMake ${minimumCMake.join('.')} or newer (found ${version.join('.')})`, 'cmake');
  const make = works('make', ['--version']);
  need(make || works('ninja', ['--version']), 'make (or ninja)', 'make');
  const cxx = process.env.CXX || 'c++';
  const probe = '#include <concepts>\n#include <span>\ntemplate <class T> requires std::integral<T> T f(T t) { return t; }\n';
  need(works(cxx, ['-std=c++20', '-fsyntax-only', '-x', 'c++', '-'], { input: probe }),
    `a C++20 compiler (${cxx}; g++ 10 or newer)`, 'g++');
  need(works('pkg-config', ['--version']), 'pkg-config', 'pkg-config');
  need(works('pkg-config', ['--exists', 'x11']), 'the X11 development headers (X11/Xlib.h)', 'libx11-dev');
  need(works('pkg-config', ['--exists', 'xi']), 'the XInput2 development headers (X11/extensions/XInput2.h)',
    'libxi-dev');
  return make ? [] : ['-G', 'Ninja'];
}

const truthy = (v) => v !== undefined && !['', '0', 'false', 'off', 'no'].includes(String(v).toLowerCase());

function build() {
  const generator = checkPrerequisites();
  let headers;
  try {
    headers = resolveHeaders();
  } catch (e) {
    throw new Missing(`${e.message} (Debian's Node headers: "apt-get install libnode-dev")`);
  }
  fs.rmSync(buildDir, { recursive: true, force: true });
  fs.mkdirSync(buildDir, { recursive: true });
  const logFile = path.join(buildDir, 'build.log');
  const hostResolved = truthy(process.env.npm_config_zelbridge_host_resolved_x11 || process.env.ZEL_HOST_RESOLVED_X11);
  const steps = [
    ['cmake', ['-S', packageDir, '-B', buildDir, ...generator, '-DCMAKE_BUILD_TYPE=Release',
      '-DZEL_BUILD_TESTS=OFF', '-DZEL_BUILD_BENCH=OFF', '-DZEL_BUILD_TOOLS=OFF', '-DZEL_BUILD_FUZZERS=OFF',
      `-DNODE_EXECUTABLE=${process.execPath}`, `-DNODE_INCLUDE_DIR=${headers.includeDir}`,
      `-DZEL_HOST_RESOLVED_X11=${hostResolved ? 'ON' : 'OFF'}`]],
    ['cmake', ['--build', buildDir, '--target', 'zelbridge', '--parallel', String(os.availableParallelism?.() || 2)]],
  ];
  for (const [command, args] of steps) {
    const r = run(command, args);
    fs.appendFileSync(logFile, `$ ${command} ${args.join(' ')}\n${r.stdout}${r.stderr}`);
    if (r.error || r.status !== 0) {
      const tail = `${r.stdout}${r.stderr}`.trim().split('\n').slice(-30).join('\n');
      throw new Error(`${tail}\nzelbridge: the build failed (full log: ${logFile})`);
    }
  }
  const record = JSON.parse(fs.readFileSync(path.join(buildDir, 'zelbridge-build.json'), 'utf8'));
  console.log(`zelbridge: built ${path.relative(packageDir, path.join(buildDir, 'zelbridge.node'))} for ` +
    `${record.runtime} ${record.version} (module version ${record.moduleVersion}, headers ${headers.includeDir})`);
}

try {
  build();
} catch (e) {
  console.error(e instanceof Missing ? `zelbridge: cannot build: ${e.message}` : e.message);
  process.exit(1);
}
