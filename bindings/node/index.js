'use strict';
// Node.js and Electron binding of libPelmora. See index.d.ts for the interface.

const { execFileSync } = require('node:child_process');
const { EventEmitter } = require('node:events');
const path = require('node:path');

const native = require('./build/pelmora.node');

const LIBRARY_NAMES = process.platform === 'darwin'
  ? ['libPelmora.2.dylib', 'libPelmora.dylib']
  : ['libPelmora.so.2', 'libPelmora.so'];
const PKG_CONFIG_TIMEOUT_MS = 5000;

// The library's own codes (Pelmora.h); StartAdbServer passes libTarnwell's codes on unchanged.
const MESSAGES = {
  1: 'a folder argument is missing or empty',
  2: 'iManufactureAndiProduct.ini cannot be read from the configuration folder',
  4: 'the USB watcher could not be set up',
  5: 'the callback was refused',
  6: 'the poll thread could not be created',
  7: 'an unexpected failure inside libPelmora (see Pelmora.log)',
};

class PelmoraError extends Error {
  constructor(code, operation) {
    super(`${operation} failed with code ${code}: ${MESSAGES[code] || 'see Pelmora.log'}`);
    this.name = 'PelmoraError';
    this.code = code;
  }
}

// Where libPelmora is looked for, in order: $PELMORA_LIBRARY alone when set; else the libdir
// of an installed Pelmora (pkg-config), then the loader's own search path.
function libraryCandidates() {
  if (process.env.PELMORA_LIBRARY) return [process.env.PELMORA_LIBRARY];
  const candidates = [];
  try {
    const libdir = execFileSync('pkg-config', ['--variable=libdir', 'pelmora'], {
      encoding: 'utf8', timeout: PKG_CONFIG_TIMEOUT_MS, stdio: ['ignore', 'pipe', 'ignore'],
    }).trim();
    if (libdir) candidates.push(...LIBRARY_NAMES.map((name) => path.join(libdir, name)));
  } catch {
    // no pkg-config, or no installed Pelmora: the loader's search path remains
  }
  return candidates.concat(LIBRARY_NAMES);
}

let libraryPath = null;
function library() {
  if (libraryPath === null) libraryPath = native.load(libraryCandidates());
  return native;
}

function check(code, operation) {
  if (code !== 0) throw new PelmoraError(code, operation);
}

function init({ configDir, resourceDir, logDir } = {}) {
  check(library().init(String(configDir ?? ''), String(resourceDir ?? ''), String(logDir ?? '')),
    'InitPelmora');
}

async function startAdbServer({ killed = false } = {}) {
  check(await library().startAdbServer(Boolean(killed)), 'StartAdbServer');
}

let active = null;

class Listener extends EventEmitter {
  constructor() {
    super();
    this.stopped = false;
    check(library().listen((text) => this._onReport(text)), 'StartListenAndroidDevice');
  }

  _onReport(text) {
    if (this.stopped) return;
    let changed;
    try {
      ({ changed } = JSON.parse(text));
      if (!Array.isArray(changed)) throw new Error('no "changed" array');
    } catch (e) {
      const error = new Error(`unreadable report from libPelmora (${e.message}): ${text}`);
      if (this.listenerCount('error') > 0) this.emit('error', error);
      else process.emitWarning(error);
      return;
    }
    this.emit('report', changed);
    for (const change of changed) this.emit('change', change);
  }

  stop() {
    if (this.stopped) return;
    this.stopped = true;
    if (active === this) active = null;
    native.stop();
  }

  // Whether listening keeps the process alive (it does by default, until stop()).
  ref() { if (!this.stopped) native.ref(true); return this; }
  unref() { if (!this.stopped) native.ref(false); return this; }
}

function listen() {
  if (active !== null) throw new Error('pelmora: already listening; stop() the active listener first');
  const listener = new Listener();
  active = listener;
  return listener;
}

module.exports = {
  init, startAdbServer, listen, Listener, PelmoraError,
  get libraryPath() { return libraryPath; },
};
