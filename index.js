'use strict';
// The package entry (CommonJS): the native components as they are, and the event layer over them.
const native = require('./lib/binding.js');
const { PointerEmitter } = require('./lib/pointer.js');
const { LogEmitter } = require('./lib/log.js');
const { MouseButton, ButtonEvent, LogLevel } = require('./lib/constants.js');

const { crash_emitter, diagnostics, hardware, shutdown } = native;
const pointer = new PointerEmitter(hardware);
const log = new LogEmitter(diagnostics);

module.exports = { crash_emitter, diagnostics, hardware, shutdown, pointer, log, MouseButton, ButtonEvent, LogLevel };
