'use strict';
// Failed runtime checks seen from script: no handler ends the process, a handler reports or records them.
// The testkit's "checks" component installs the handlers; every case runs in a child process.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild, describe, requireTestkit } = require('./support');

test('a failed check with no handler installed terminates the process', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    try { kit.checks.failCheck('no handler'); } catch (error) { console.log('caught'); }
    console.log('returned');
  `);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(!result.stderr.includes('no handler'), 'the library prints nothing itself');
});

test('the aborting handler prints the report, then aborts', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    kit.checks.failCheck('the reason');
    console.log('returned');
  `);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(result.stderr.includes('Runtime check failed: checkedCondition\n  function: failCheck\n'
    + '  file: ../tests/addon/testkit\n  line: 4242\n  message: the reason\n  reserved: null\n'), describe(result));
});

test('the recording handler records the report and execution goes on after the check', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    kit.checks.installRecordingFailureHandler();
    const returned = [kit.checks.failCheck('first'), kit.checks.failCheck('')];
    const reports = [];
    for (let i = 0; i < kit.checks.failureReportCount(); ++i) reports.push(kit.checks.failureReport(i));
    kit.checks.clearFailureReports();
    console.log(JSON.stringify({ returned, reports, cleared: kit.checks.failureReportCount() }));
  `);
  assert.equal(result.status, 0, describe(result));
  const { returned, reports, cleared } = JSON.parse(result.stdout);
  assert.deepEqual(returned, [true, true]);
  const report = (message) => ({
    function: 'failCheck', file: '../tests/addon/testkit', line: 4242, expression: 'checkedCondition',
    message, reservedIsNull: true, probe: -1,
  });
  assert.deepEqual(reports, [report('first'), report('')]);
  assert.equal(cleared, 0);
});

test('removing the handler brings termination back', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    kit.checks.installRecordingFailureHandler();
    kit.checks.failCheck('recorded');
    kit.checks.removeFailureHandler();
    console.log(kit.checks.failureReportCount());
    kit.checks.failCheck('terminates');
    console.log('returned');
  `);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '1\n');
});
