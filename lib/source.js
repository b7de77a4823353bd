'use strict';
// The base of the layer's emitters: an EventEmitter whose native source starts before the first listener of
// its events is added and stops after the last one is removed, and whose delivery reaches every listener even
// when one of them throws.
const EventEmitter = require('node:events');
const { inspect } = require('node:util');

/** Subclasses start their source in `[kStart]()` (it may throw: the listener is then not added)... */
const kStart = Symbol('start');
/** ...and stop it in `[kStop]()`. */
const kStop = Symbol('stop');

/**
 * Reports what a listener threw or rejected with as a process warning: an `Error` is emitted as the warning
 * itself, any other value as a warning that shows it.
 */
function report(error) {
  // process.emitWarning accepts an Error of this realm only.
  if (error instanceof Error) process.emitWarning(error);
  else process.emitWarning(`A listener threw ${inspect(error)}`);
}

/**
 * Calls every listener of `event` on `emitter` with `args`, as `emit` does (the listeners present when the
 * call begins, in order, `this` = `emitter`, once-listeners removed before they run), but a listener that
 * throws, or returns a promise that rejects, is reported and the others still run.
 */
function deliver(emitter, event, ...args) {
  for (const listener of emitter.rawListeners(event)) {
    try {
      const result = Reflect.apply(listener, emitter, args);
      if (typeof result?.then === 'function') result.then(undefined, report);
    } catch (error) {
      report(error);
    }
  }
}

class SourceEmitter extends EventEmitter {
  #events;
  // 'newListener' comes before the listener is added, 'removeListener' after it is gone.
  #added = (event) => {
    if (this.#events.includes(event) && !this.#listened()) this[kStart]();
  };
  #removed = (event) => {
    if (this.#events.includes(event) && !this.#listened()) this[kStop]();
  };

  /** `events`: the names of the events the source feeds. */
  constructor(events) {
    super();
    this.#events = events;
    this.#hook();
  }

  /** As EventEmitter's, but the hooks that start and stop the source stay. */
  removeAllListeners(...args) {
    super.removeAllListeners(...args);
    this.#hook();
    return this;
  }

  #listened() {
    return this.#events.some((event) => this.listenerCount(event) > 0);
  }

  #hook() {
    if (!this.rawListeners('newListener').includes(this.#added)) this.on('newListener', this.#added);
    if (!this.rawListeners('removeListener').includes(this.#removed)) this.on('removeListener', this.#removed);
  }
}

module.exports = { SourceEmitter, deliver, kStart, kStop };
