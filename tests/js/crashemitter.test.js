'use strict';
// The crash emitter: both methods end the process with a segmentation fault. Each runs in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild, crashEnv, describe, requireBridge, requireTestkit } = require('./support');

// Seconds a crash may take at most (the recursion has to fill the whole stack first).
const CRASH_SECONDS = 30;

function crash(script, options = {}) {
  const started = Date.now();
  const result = runChild(script, { env: crashEnv(), timeout: CRASH_SECONDS * 1000, ...options });
  return { ...result, seconds: (Date.now() - started) / 1000 };
}

test('emitAccessViolation ends the process with SIGSEGV', () => {
  const result = crash(`${requireBridge}.crash_emitter.emitAccessViolation(); console.log('returned');`);
  assert.equal(result.signal, 'SIGSEGV', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(result.seconds < 10, `took ${result.seconds}s`);
});

test('emitAccessViolation faults at address 0', () => {
  const result = crash(`
    ${requireTestkit}.checks.installFaultAddressReporter();
    ${requireBridge}.crash_emitter.emitAccessViolation();
    console.log('returned');
  `);
  assert.equal(result.signal, 'SIGSEGV', describe(result));
  assert.match(result.stderr, /^fault address: 0x0$/m, describe(result));
  assert.equal(result.stdout, '');
});

test('emitAccessViolation is not caught by a script try/catch', () => {
  const result = crash(`
    try { ${requireBridge}.crash_emitter.emitAccessViolation(); } catch (error) { console.log('caught'); }
    console.log('returned');
  `);
  assert.equal(result.signal, 'SIGSEGV', describe(result));
  assert.equal(result.stdout, '');
});

test('emitStackOverflow ends the process with SIGSEGV', () => {
  const result = crash(`${requireBridge}.crash_emitter.emitStackOverflow(); console.log('returned');`);
  assert.equal(result.signal, 'SIGSEGV', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(result.seconds < CRASH_SECONDS, `took ${result.seconds}s`);
});

test('emitStackOverflow exhausts a 64 MiB native stack too', () => {
  const result = crash(`
    try { ${requireBridge}.crash_emitter.emitStackOverflow(); } catch (error) { console.log('caught'); }
    console.log('returned');
  `, { stackKiB: 64 * 1024, execArgv: ['--stack-size=4000'] });
  assert.equal(result.signal, 'SIGSEGV', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(result.seconds < CRASH_SECONDS, `took ${result.seconds}s`);
});

test('the 64 MiB stack limit reaches the child', () => {
  // Guards the test above: the limit must really be raised for the crashing process.
  const result = runChild(`
    const { execSync } = require('node:child_process');
    console.log(execSync('ulimit -s', { shell: '/bin/bash' }).toString().trim());
  `, { stackKiB: 64 * 1024 });
  assert.equal(result.status, 0, describe(result));
  assert.equal(result.stdout.trim(), String(64 * 1024));
});
