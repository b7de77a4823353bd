'use strict';
// The test Xvfb of the CTest "xvfb" fixture, kept in a state directory:
//   node tests/js/xvfb-fixture.js start STATE_DIR   starts Xvfb and writes STATE_DIR/display (":N") and STATE_DIR/pid
//   node tests/js/xvfb-fixture.js stop STATE_DIR    stops the Xvfb recorded there and removes the files
const fs = require('node:fs');
const path = require('node:path');
const { startXvfb, stopProcess } = require('./support.js');

async function stop(dir) {
  const pidFile = path.join(dir, 'pid');
  if (fs.existsSync(pidFile)) await stopProcess(Number(fs.readFileSync(pidFile, 'utf8')));
  fs.rmSync(pidFile, { force: true });
  fs.rmSync(path.join(dir, 'display'), { force: true });
}

async function start(dir) {
  fs.mkdirSync(dir, { recursive: true });
  await stop(dir); // a server left by an interrupted run
  // Detached, with its output in a file: ctest must not wait for the server's end of our pipes.
  const server = await startXvfb({ detached: true, log: path.join(dir, 'xvfb.log') });
  fs.writeFileSync(path.join(dir, 'pid'), `${server.pid}\n`);
  fs.writeFileSync(path.join(dir, 'display.new'), `${server.display}\n`);
  fs.renameSync(path.join(dir, 'display.new'), path.join(dir, 'display'));
  console.log(server.display);
}

const [command, dir] = process.argv.slice(2);
const action = { start, stop }[command];
if (!action || !dir) {
  console.error('usage: node tests/js/xvfb-fixture.js start|stop STATE_DIR');
  process.exit(2);
}
action(path.resolve(dir)).catch((error) => {
  console.error(`xvfb-fixture: ${error.message}`);
  process.exit(1);
});
