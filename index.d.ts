// Type declarations of zelbridge, the native input bridge for Node.js on Linux/X11.
//
//   const { pointer, log, ButtonEvent } = require('zelbridge');   // or: import { pointer, ... } from 'zelbridge'
//   log.on('message', (message, level) => console.log(level, message));
//   pointer.on('motion', (event) => console.log(event.offset.x, event.offset.y));
//   pointer.on('buttons', (event) => console.log(event.left === ButtonEvent.Pressed));
//   pointer.on('status', (status) => console.log(status.code, status.message));
//
// `pointer`, `log` and the constants are the event layer; `crash_emitter`, `diagnostics`, `hardware` and
// `shutdown` are the native components underneath, exported unchanged (see "The native components" below).

import { EventEmitter } from 'node:events';

/** Mouse button numbers, as `hardware.getButtonState` takes them (any other number means Right). */
export declare const MouseButton: Readonly<{ Left: 0; Middle: 1; Right: 2 }>;
/** A mouse button number: 0 Left, 1 Middle, 2 Right. */
export type MouseButton = (typeof MouseButton)[keyof typeof MouseButton];

/** How one button changed in one event. */
export declare const ButtonEvent: Readonly<{ None: 0; Released: 1; Pressed: 2 }>;
/** 0 None (it did not change), 1 Released, 2 Pressed. */
export type ButtonEvent = (typeof ButtonEvent)[keyof typeof ButtonEvent];

/** The level of a native log message (no message uses 1). */
export declare const LogLevel: Readonly<{ Info: 0; Warning: 2; Error: 3 }>;
/** 0 Info, 2 Warning, 3 Error. */
export type LogLevel = (typeof LogLevel)[keyof typeof LogLevel];

/** A position or a displacement in screen pixels (raw device units for a displacement). */
export interface Point2 {
  x: number;
  y: number;
}

/** One raw pointer motion. */
export interface MotionEventData {
  /** Raw relative motion of this event. */
  offset: Point2;
  /** Pointer position on the screen (root-window coordinates) when the motion was read. */
  screenPoint: Point2;
}

/** Per-button change of one event. */
export interface ButtonsEventData {
  left: ButtonEvent;
  middle: ButtonEvent;
  right: ButtonEvent;
}

/**
 * How the capture goes: a stable `code` and a readable `message` (English, for people; match on the code).
 *
 * While the capture runs:
 * - `'live'`: the X server has confirmed the capture's raw event selection; input injected from now on arrives.
 * - `'xwayland'`: the X server is Xwayland (a Wayland desktop): input arrives only while the pointer is over an
 *   X11 window, never over native Wayland windows or the bare desktop. Told once per start, after `'live'`, with a
 *   `Warning` line on standard output. Run the host in its X11 mode to get input over its own window.
 *
 * The capture did not start:
 * - `'no-display'`: no X display could be opened (`DISPLAY` unset, or no server there).
 * - `'no-xinput'`: the server does not offer XInput 2.1.
 * - `'select-refused'`: the server refused the raw event selection.
 *
 * The capture has ended by itself:
 * - `'lost'`: the connection to the X server was lost (the server, or the Wayland compositor running Xwayland,
 *   went away).
 * - `'closed'`: another X client sent the capture's hidden window its close message ("_APP_CLOSE_INPUT").
 *
 * Either:
 * - `'failed'`: the system refused a thread or a descriptor the capture needs.
 */
export interface StatusEventData {
  code: 'live' | 'xwayland' | 'no-display' | 'no-xinput' | 'select-refused' | 'lost' | 'closed' | 'failed';
  message: string;
}

// ---- the event layer ----

/**
 * Raw pointer input as events: 'motion' (a `MotionEventData`, for every record with a non-zero offset) and
 * 'buttons' (a `ButtonsEventData`, for every record in which one of the three buttons changed), the native
 * records unchanged, in arrival order.
 *
 * One native capture serves every listener of the process: it starts when the first 'motion' or 'buttons'
 * listener is added and stops when the last is removed; listeners can be added and removed any number of
 * times, and each record reaches the listeners present when it is delivered. While a listener exists the
 * capture runs and keeps the process alive; when none remains, nothing holds the capture.
 *
 * Cancellation: `events.on(pointer, 'motion', { signal })` and `events.once(pointer, 'motion', { signal })`
 * take an `AbortSignal`; for a listener function, `events.addAbortListener(signal, () => pointer.off('motion', f))`.
 *
 * 'status' (a `StatusEventData`) tells how the capture goes, in order with the records: `'live'` comes before the
 * first record of a start. Listening to 'status' starts nothing; listen to it before (or together with) the first
 * 'motion' or 'buttons' listener to hear every status. A capture that did not start or has ended (any code but
 * `'live'` and `'xwayland'`) is released before its status is emitted, so it no longer keeps the process alive;
 * it is not retried: it stays stopped while listeners remain, and starts again when a 'motion' or 'buttons'
 * listener is added after all of them were removed.
 *
 * A listener that throws (or returns a promise that rejects) does not stop delivery, to the others or to
 * itself: what it threw is reported with `process.emitWarning` (an `Error` as the warning itself), never as an
 * 'error' event, which would end every `events.on` iterator of the emitter.
 *
 * The native captures of `hardware` share one driver with this one: another capture object's `stopCapturing`,
 * or its collection, stops the input of `pointer` too, and while another one captures, `pointer` gets nothing.
 */
export interface PointerEmitter extends EventEmitter {
  on(event: 'motion', listener: (event: MotionEventData) => void): this;
  on(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  on(event: 'status', listener: (status: StatusEventData) => void): this;
  on(event: string | symbol, listener: (...args: any[]) => void): this;
  addListener(event: 'motion', listener: (event: MotionEventData) => void): this;
  addListener(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  addListener(event: 'status', listener: (status: StatusEventData) => void): this;
  addListener(event: string | symbol, listener: (...args: any[]) => void): this;
  prependListener(event: 'motion', listener: (event: MotionEventData) => void): this;
  prependListener(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  prependListener(event: 'status', listener: (status: StatusEventData) => void): this;
  prependListener(event: string | symbol, listener: (...args: any[]) => void): this;
  once(event: 'motion', listener: (event: MotionEventData) => void): this;
  once(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  once(event: 'status', listener: (status: StatusEventData) => void): this;
  once(event: string | symbol, listener: (...args: any[]) => void): this;
  prependOnceListener(event: 'motion', listener: (event: MotionEventData) => void): this;
  prependOnceListener(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  prependOnceListener(event: 'status', listener: (status: StatusEventData) => void): this;
  prependOnceListener(event: string | symbol, listener: (...args: any[]) => void): this;
  off(event: 'motion', listener: (event: MotionEventData) => void): this;
  off(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  off(event: 'status', listener: (status: StatusEventData) => void): this;
  off(event: string | symbol, listener: (...args: any[]) => void): this;
  removeListener(event: 'motion', listener: (event: MotionEventData) => void): this;
  removeListener(event: 'buttons', listener: (event: ButtonsEventData) => void): this;
  removeListener(event: 'status', listener: (status: StatusEventData) => void): this;
  removeListener(event: string | symbol, listener: (...args: any[]) => void): this;
}

/**
 * The native log as events: 'message' (message, level) for every native log message written on the script
 * thread. The native log handler is installed once, when the first 'message' listener is added, and stays:
 * from then on the native side also prints every message on standard output. Listeners are added and removed,
 * cancelled and reported as for `pointer`. `diagnostics.setLogHandler` replaces this emitter's handler.
 */
export interface LogEmitter extends EventEmitter {
  on(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  on(event: string | symbol, listener: (...args: any[]) => void): this;
  addListener(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  addListener(event: string | symbol, listener: (...args: any[]) => void): this;
  prependListener(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  prependListener(event: string | symbol, listener: (...args: any[]) => void): this;
  once(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  once(event: string | symbol, listener: (...args: any[]) => void): this;
  prependOnceListener(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  prependOnceListener(event: string | symbol, listener: (...args: any[]) => void): this;
  off(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  off(event: string | symbol, listener: (...args: any[]) => void): this;
  removeListener(event: 'message', listener: (message: string, level: LogLevel) => void): this;
  removeListener(event: string | symbol, listener: (...args: any[]) => void): this;
}

/**
 * Pointer input for every part of the app. Adding the first listener throws the `Error` of
 * `hardware.capturePointer` when it fails (after `shutdown`); the listener is then not added.
 */
export declare const pointer: PointerEmitter;

/**
 * Native log messages for every part of the app. Adding the first listener throws the `Error` of
 * `diagnostics.setLogHandler` when it fails (after `shutdown`); the listener is then not added.
 */
export declare const log: LogEmitter;

// ---- the native components ----
//
// Every native method ends the process with SIGABRT when it is called with a `this` that is not its own
// object (`const f = hardware.getButtonState; f(0)`, `m.call({})`, `new m()`): call them as methods.

/**
 * Streams raw pointer motion and button changes to script callbacks (low level: `pointer` is the safe way).
 * Callbacks run on the script thread; an exception they throw is dropped. Each callback can be set once: null
 * or undefined leaves an unset slot empty (it can still be set), a set slot is never cleared, and setting a set
 * slot again ends the process. All captures of the component share one driver. The native capture is released
 * when this object is garbage collected, which stops the driver's capture whichever object started it.
 */
export interface PointerCapture {
  /**
   * Sets the buttons callback. **Ends the process with SIGABRT** when the callback is already set (with
   * any value, null included).
   */
  setButtonsEventCallback(callback: ((event: ButtonsEventData) => void) | null | undefined): void;
  /**
   * Sets the motion callback. **Ends the process with SIGABRT** when the callback is already set (with
   * any value, null included).
   */
  setMotionEventCallback(callback: ((event: MotionEventData) => void) | null | undefined): void;
  /** Starts reading raw input from the X server; without effect while any capture of the component runs. */
  startCapturing(): void;
  /** Stops the driver's capture, whichever capture object started it. */
  stopCapturing(): void;
  /**
   * Sets the status callback: how each capture of this object goes, in order with the records (see
   * `StatusEventData`). A status that arrives after this object stopped its capture, or started a new one, is
   * dropped. A capture that did not start or has ended stays "captured" until `stopCapturing`. Throws an `Error`
   * when the callback is already set (null or undefined leave an unset slot empty).
   */
  setStatusCallback(callback: ((status: StatusEventData) => void) | null | undefined): void;
}

/** Crashes the process on demand. Neither method returns. */
export interface CrashEmitter {
  /** **Ends the process** with a segmentation fault (a write to address 0). */
  emitAccessViolation(): never;
  /** **Ends the process** by exhausting the native stack (SIGSEGV). */
  emitStackOverflow(): never;
}

/** Routes the native log to standard output and to script (low level: `log` is the shared way). */
export interface Diagnostics {
  /**
   * From now on every native log message is printed as a line on standard output and, when written on the
   * script thread, passed to `handler`. There is one handler per process: the last call wins (it replaces
   * `log`'s handler too); null or undefined leaves printing only.
   * Throws once "shutdown" has released the component.
   */
  setLogHandler(handler: ((message: string, level: LogLevel) => void) | null | undefined): void;
}

/** Mouse button state and raw pointer capture. */
export interface Hardware {
  /** A new capture object; every capture of this component shares one raw input driver. */
  capturePointer(): PointerCapture;
  /** Whether `button` is held down now. */
  getButtonState(button: MouseButton): boolean;
}

export declare const crash_emitter: CrashEmitter;
export declare const diagnostics: Diagnostics;
export declare const hardware: Hardware;

/**
 * Releases every component of every context. Calling it again does nothing. The component objects stay on
 * the exports; their methods then throw an Error.
 */
export declare function shutdown(): void;
