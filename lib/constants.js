'use strict';
// Names for the numbers that cross the native boundary.

/** A mouse button, as `hardware.getButtonState` takes it (any other number means Right). */
const MouseButton = Object.freeze({ Left: 0, Middle: 1, Right: 2 });

/** How one button changed in one 'buttons' record. */
const ButtonEvent = Object.freeze({ None: 0, Released: 1, Pressed: 2 });

/** The level of a native log message (no message uses 1). */
const LogLevel = Object.freeze({ Info: 0, Warning: 2, Error: 3 });

module.exports = { MouseButton, ButtonEvent, LogLevel };
