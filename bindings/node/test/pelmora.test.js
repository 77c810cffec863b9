'use strict';
// The Node.js binding against libPelmora (PELMORA_LIBRARY), a private adb server and a phone of
// pelmora-sim-phone (PELMORA_SIM_PHONE), started with --own-server.
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

let phone;
let folders;
let work;

function within(promise, what) {
  let timer;
  const timeout = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`no ${what} within ${WAIT_MS} ms`)), WAIT_MS);
  });
  return Promise.race([promise, timeout]).finally(() => clearTimeout(timer));
}

function nextChange(listener, predicate, what) {
  return within(new Promise((resolve) => {
    const onChange = (change) => {
      if (!predicate(change)) return;
      listener.off('change', onChange);
      resolve(change);
    };
    listener.on('change', onChange);
  }), what);
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

test('a phone shows up with its model, and leaves as NotConnect', async () => {
  const listener = pelmora.listen();
  try {
    assert.throws(() => pelmora.listen(), /already listening/);
    const report = within(new Promise((resolve) => listener.once('report', resolve)), 'report');
    const arrival = await nextChange(listener, (c) => c.model === MODEL, 'arrival');
    assert.ok(Array.isArray(await report));
    assert.deepStrictEqual([arrival.new_status, arrival.os_version, arrival.adb_error_code],
      ['AuthoredConnect', '14', 0]);
    assert.strictEqual(Object.keys(arrival).length, 11);
    phone.stdin.write('leave\n');
    const gone = await nextChange(listener,
      (c) => c.key_serial === arrival.key_serial && c.new_status === 'NotConnect', 'departure');
    assert.deepStrictEqual([gone.model, gone.os_version], ['', '']); // no details once gone
  } finally {
    listener.stop();
  }
});

test('failures are PelmoraErrors with the library code', async () => {
  const empty = fs.mkdtempSync(path.join(os.tmpdir(), 'pelmora-node-empty-'));
  try {
    for (const [options, code] of [[{ ...folders, configDir: '' }, 1], [{ ...folders, logDir: '' }, 1],
      [{ ...folders, configDir: empty }, 2]]) {
      assert.throws(() => pelmora.init(options), (e) => e instanceof pelmora.PelmoraError && e.code === code);
    }
    const port = process.env.ANDROID_ADB_SERVER_PORT;
    process.env.ANDROID_ADB_SERVER_PORT = 'not-a-port';
    await assert.rejects(pelmora.startAdbServer(), (e) => e instanceof pelmora.PelmoraError && e.code !== 0);
    process.env.ANDROID_ADB_SERVER_PORT = port;
  } finally {
    pelmora.init(folders);
    fs.rmSync(empty, { recursive: true, force: true });
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
