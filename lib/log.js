'use strict';
// `log`: the native log as an EventEmitter with a 'message' event (message, level).
const { SourceEmitter, deliver, kStart, kStop } = require('./source.js');

/**
 * Installs its handler with `diagnostics.setLogHandler` once, before the first 'message' listener is added,
 * and keeps it: from then on the native side also prints every message on standard output.
 */
class LogEmitter extends SourceEmitter {
  #diagnostics;
  #installed = false;

  /** `diagnostics`: the native diagnostics component. */
  constructor(diagnostics) {
    super(['message']);
    this.#diagnostics = diagnostics;
  }

  [kStart]() {
    if (this.#installed) return;
    this.#diagnostics.setLogHandler((message, level) => deliver(this, 'message', message, level));
    this.#installed = true;
  }

  [kStop]() {}
}

module.exports = { LogEmitter };
