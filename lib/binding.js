'use strict';
// Loads the native module: the build named by ZELBRIDGE_BUILD_DIR, else build/default, else build/release.
const fs = require('fs');
const path = require('path');

function modulePath() {
  const candidates = [];
  if (process.env.ZELBRIDGE_BUILD_DIR) candidates.push(path.resolve(process.env.ZELBRIDGE_BUILD_DIR));
  candidates.push(path.join(__dirname, '..', 'build', 'default'), path.join(__dirname, '..', 'build', 'release'));
  for (const dir of candidates) {
    const file = path.join(dir, 'zelbridge.node');
    if (fs.existsSync(file)) return file;
  }
  throw new Error(`zelbridge.node is not built (looked in ${candidates.join(', ')}): run "npm test" or "npm start"`);
}

module.exports = require(modulePath());
