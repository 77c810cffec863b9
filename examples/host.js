#!/usr/bin/env node
// Prints every change of the Android phones plugged in, until Ctrl-C.
//   node examples/host.js [CONFIG_DIR]
// CONFIG_DIR defaults to the configuration of an installed Pelmora (pkg-config pelmora).
'use strict';
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const pelmora = require('../bindings/node'); // require('pelmora') once installed

async function main() {
  const configDir = process.argv[2]
    || execFileSync('pkg-config', ['--variable=configdir', 'pelmora'], { encoding: 'utf8', timeout: 5000 }).trim();
  const state = path.join(os.tmpdir(), 'pelmora-example'); // resources and Pelmora.log
  fs.mkdirSync(state, { recursive: true });
  pelmora.init({ configDir, resourceDir: state, logDir: state });
  await pelmora.startAdbServer();
  const listener = pelmora.listen();
  listener.on('change', (c) => console.log(
    `${c.key_serial.padEnd(22)} ${c.old_status.padStart(17)} -> ${c.new_status.padEnd(17)} ${c.manufacturer} ${c.model} ${c.os_version}`));
  process.once('SIGINT', () => listener.stop()); // nothing else holds the process: it ends
  console.log('listening; Ctrl-C to quit');
}

main().catch((e) => {
  console.error(`pelmora: ${e.message}`);
  process.exitCode = 1;
});
