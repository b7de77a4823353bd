// The package entry (ES module): the same names and objects as the CommonJS entry.
import zelbridge from './index.js';

export const {
  crash_emitter, diagnostics, hardware, shutdown, pointer, log, MouseButton, ButtonEvent, LogLevel,
} = zelbridge;
