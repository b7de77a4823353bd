// Type declarations of zelbridge.node, the native input bridge for Node.js on Linux/X11.
//
//   const zelbridge = require('zelbridge');
//   zelbridge.diagnostics.setLogHandler((message, level) => console.log(level, message));
//   const capture = zelbridge.hardware.capturePointer();
//   capture.setMotionEventCallback((event) => console.log(event.offset.x, event.offset.y));
//   capture.setButtonsEventCallback((event) => console.log(event.left, event.middle, event.right));
//   capture.startCapturing();

/**
 * A mouse button, as the number script passes: 0 Left, 1 Middle, 2 Right.
 * `getButtonState` treats any other number as Right.
 */
export type MouseButton = 0 | 1 | 2;

/** How one button changed in one event: 0 None (it did not change), 1 Released, 2 Pressed. */
export type ButtonEvent = 0 | 1 | 2;

/** The level of a native log message: 0 Info, 2 Warning, 3 Error (no message uses 1). */
export type LogLevel = 0 | 2 | 3;

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
 * Streams raw pointer motion and button changes to script callbacks. Callbacks run on the script thread;
 * an exception they throw is dropped. Passing null or undefined clears a callback.
 * The native capture is released when this object is garbage collected.
 */
export interface PointerCapture {
  setButtonsEventCallback(callback: ((event: ButtonsEventData) => void) | null | undefined): void;
  setMotionEventCallback(callback: ((event: MotionEventData) => void) | null | undefined): void;
  /** Starts reading raw input from the X server; without effect while another capture of the component runs. */
  startCapturing(): void;
  stopCapturing(): void;
}

/** Crashes the process on demand. Neither method returns. */
export interface CrashEmitter {
  /** Ends the process with a segmentation fault (a write to address 0). */
  emitAccessViolation(): never;
  /** Ends the process by exhausting the native stack. */
  emitStackOverflow(): never;
}

/** Routes the native log to standard output and to script. */
export interface Diagnostics {
  /**
   * From now on every native log message is printed as a line on standard output and, when written on the
   * script thread, passed to `handler`. The last call wins; null or undefined leaves printing only.
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
