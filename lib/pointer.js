'use strict';
// `pointer`: the pointer capture of a hardware component as an EventEmitter with 'motion', 'buttons' and 'status'
// events.
const { SourceEmitter, deliver, kStart, kStop } = require('./source.js');

/** The status codes of a capture that runs; every other code means that it did not start or has ended. */
const RUNNING = new Set(['live', 'xwayland']);

/**
 * One native capture serves every listener: it starts before the first 'motion' or 'buttons' listener is added
 * and stops after the last is removed. Its callbacks are set once, when it is made. While stopped, the emitter
 * keeps it only through a WeakRef, so the capture can be collected; the next start reuses it if it still
 * exists and makes a new one otherwise. (A capture that is collected releases the driver's capture, whoever
 * holds it: an old capture collected while a newer one runs would stop the newer one. Reusing the old one
 * while it exists avoids that; once the WeakRef is empty, the old capture is gone for good.)
 *
 * 'status' listeners do not start anything: they hear how the capture started by the others goes. A capture
 * that could not start or has ended is released at once and stays stopped while listeners remain; it starts
 * again only when a 'motion' or 'buttons' listener is added after all were removed. Nothing is retried.
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
      capture.setStatusCallback((status) => this.#onStatus(status));
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

  #onStatus(status) {
    // Released before the listeners hear of it, so that a listener may start a new capture.
    if (!RUNNING.has(status.code)) this.#running?.stopCapturing();
    deliver(this, 'status', status);
  }
}

module.exports = { PointerEmitter };
