'use strict';
// The native exports of zelbridge.node, loaded only when it was built for the running runtime.
const found = require('./buildrecord.js').findModule();
if (found instanceof Error) throw found;
module.exports = require(found);
