'use strict';
// `pointer`: the pointer capture of a hardware component as an EventEmitter with 'motion' and 'buttons' events.
const { SourceEmitter, deliver, kStart, kStop } = require('./source.js');

/**
 * One native capture serves every listener: it starts before the first 'motion' or 'buttons' listener is added
 * and stops after the last is removed. Its callbacks are set once, when it is made. While stopped, the emitter
 * keeps it only through a WeakRef, so the capture can be collected; the next start reuses it if it still
 * exists and makes a new one otherwise. (A capture that is collected releases the driver's capture, whoever
 * holds it: an old capture collected while a newer one runs would stop the newer one. Reusing the old one
 * while it exists avoids that; once the WeakRef is empty, the old capture is gone for good.)
 */
class PointerEmitter extends SourceEmitter {
  #hardware;
  #running = null;
  #stopped = null;

  /** `hardware`: the native hardware component the captures come from. */
  constructor(hardware) {
    super(['motion', 'buttons']);
    this.#hardware = hardware;
  }

  [kStart]() {
    let capture = this.#stopped?.deref();
    if (!capture) {
      capture = this.#hardware.capturePointer();
      // The callbacks hold the emitter, never the capture.
      capture.setMotionEventCallback((record) => deliver(this, 'motion', record));
      capture.setButtonsEventCallback((record) => deliver(this, 'buttons', record));
    }
    this.#stopped = null;
    capture.startCapturing();
    this.#running = capture;
  }

  [kStop]() {
    const capture = this.#running;
    this.#running = null;
    this.#stopped = new WeakRef(capture);
    capture.stopCapturing();
  }
}

module.exports = { PointerEmitter };
