'use strict';
// The native exports of zelbridge.node, loaded only when it was built for the running runtime.
const { findModule, rebuildCommand } = require('./buildrecord.js');

const found = findModule();
if (found instanceof Error) throw found;
try {
  module.exports = require(found.module);
} catch (error) {
  // A prebuilt module needs what it was linked against (a C library as new as the build machine's).
  if (!found.prebuilt) throw error;
  throw new Error(`the prebuilt ${found.module} cannot be loaded here (${error.message}). Build it from source ` +
    `with: ${rebuildCommand(process, ' --build-from-source')}`, { cause: error });
}
