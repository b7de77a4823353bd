'use strict';
// The package entry (CommonJS).
module.exports = require('./lib/binding.js');
