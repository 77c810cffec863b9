'use strict';
// What the Node.js binding adds to libPelmora (PELMORA_LIBRARY): reports as events of plain
// objects, errors with the library's code, and a process that ends once listening stops. Against
// a phone of pelmora-sim-phone (PELMORA_SIM_PHONE) behind an adb server of its own (--own-server).
const { test, before, after } = require('node:test');
const assert = require('node:assert');
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const readline = require('node:readline');
const pelmora = require('..');

const REPO = path.resolve(__dirname, '..', '..', '..');
const SIM_PHONE = process.env.PELMORA_SIM_PHONE
  || path.join(REPO, 'build', 'tools', 'sim-phone', 'pelmora-sim-phone');
const CONFIG = path.join(REPO, 'config');
const MODEL = 'Node Binding Phone';
const WAIT_MS = 20000;

let phone, folders, work;

function within(promise, what) {
  let timer;
  const timeout = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`no ${what} within ${WAIT_MS} ms`)), WAIT_MS);
  });
  return Promise.race([promise, timeout]).finally(() => clearTimeout(timer));
}

before(async () => {
  phone = spawn(SIM_PHONE, ['--own-server', '--model', MODEL, '--android-version', '14'],
    { stdio: ['pipe', 'pipe', 'inherit'] });
  const lines = readline.createInterface({ input: phone.stdout });
  const port = await within(new Promise((resolve) => lines.on('line', (line) => {
    const match = /^adb-server-port (\d+)$/.exec(line);
    if (match) resolve(match[1]);
  })), 'adb server port from pelmora-sim-phone');
  process.env.ANDROID_ADB_SERVER_PORT = port;
  work = fs.mkdtempSync(path.join(os.tmpdir(), 'pelmora-node-'));
  folders = { configDir: CONFIG, resourceDir: work, logDir: work };
  pelmora.init(folders);
  await pelmora.startAdbServer();
});

after(async () => {
  if (work) fs.rmSync(work, { recursive: true, force: true });
  if (!phone || phone.exitCode !== null) return;
  const ended = new Promise((resolve) => phone.once('exit', resolve));
  phone.stdin.end('quit\n');
  const timer = setTimeout(() => phone.kill('SIGTERM'), 10000);
  await ended;
  clearTimeout(timer);
});

test('changes arrive as plain objects of every report member, one listener at a time', async () => {
  const listener = pelmora.listen();
  try {
    assert.throws(() => pelmora.listen(), (e) => e instanceof pelmora.PelmoraError && e.code === 202);
    let report; // each report comes whole, before its changes one by one
    listener.once('report', (changed) => { report = changed; });
    const arrival = await within(new Promise((resolve) => listener.on('change', (c) => {
      if (c.model === MODEL) resolve(c);
    })), 'arrival');
    assert.ok(Array.isArray(report));
    assert.deepStrictEqual([arrival.new_status, arrival.os_version, arrival.adb_error_code],
      ['AuthoredConnect', '14', 0]);
    assert.strictEqual(Object.keys(arrival).length, 11);
  } finally {
    listener.stop();
  }
});

test('failures are PelmoraErrors with the library code, thrown or rejected', async () => {
  const port = process.env.ANDROID_ADB_SERVER_PORT;
  try {
    assert.throws(() => pelmora.init({ ...folders, configDir: work }), // no .ini files there
      (e) => e instanceof pelmora.PelmoraError && e.code === 2 && e.codeName === 'PELMORA_ERR_CONFIG_FILE'
        && e.message === `InitPelmora failed with code 2 (PELMORA_ERR_CONFIG_FILE): ${pelmora.codes[2].meaning}`);
    process.env.ANDROID_ADB_SERVER_PORT = 'not-a-port';
    await assert.rejects(pelmora.startAdbServer(), (e) => e instanceof pelmora.PelmoraError && e.code === 112
      && e.codeName === 'TARNWELL_ERR_BAD_PORT');
  } finally {
    process.env.ANDROID_ADB_SERVER_PORT = port;
    pelmora.init(folders);
  }
});

test('the process exits on its own after stop()', () => {
  const script = `const p = require(${JSON.stringify(path.resolve(__dirname, '..'))});
    p.init(${JSON.stringify(folders)});
    const l = p.listen();
    setTimeout(() => l.stop(), 500);`;
  const child = spawnSync(process.execPath, ['-e', script], { timeout: WAIT_MS, encoding: 'utf8' });
  assert.strictEqual(child.error, undefined, 'the process did not end by itself');
  assert.strictEqual(child.status, 0, child.stderr);
});

test('from ESM, named imports; a library that cannot be loaded is a PelmoraError naming where it looked', () => {
  const script = `import { init, PelmoraError } from ${JSON.stringify(path.resolve(__dirname, '..', 'index.js'))};
    try { init(${JSON.stringify(folders)}); } catch (e) { console.log(e instanceof PelmoraError, e.code, e.message); }`;
  const child = spawnSync(process.execPath, ['--input-type=module', '-e', script], {
    timeout: WAIT_MS, encoding: 'utf8', env: { ...process.env, PELMORA_LIBRARY: '/nonexistent/libPelmora.so.2' },
  });
  assert.match(child.stdout, /^true 201 loading libPelmora failed .*\n {2}PELMORA_LIBRARY: \/nonexistent\/libPelmora\.so\.2: /s);
});
