'use strict';
// Node.js and Electron binding of libPelmora. See index.d.ts for the interface.

const { execFileSync } = require('node:child_process');
const { EventEmitter } = require('node:events');
const fs = require('node:fs');
const path = require('node:path');

const native = require('./build/pelmora.node');

const SONAME = process.platform === 'darwin' ? 'libPelmora.2.dylib' : 'libPelmora.so.2';
const PKG_CONFIG_TIMEOUT_MS = 5000;
// Loaded from a checkout, the binding finds the checkout's build.
const CHECKOUT = path.resolve(__dirname, '..', '..');
const IN_CHECKOUT = fs.existsSync(path.join(CHECKOUT, 'code', 'include', 'Pelmora.h'));
const NO_LIBRARY = 201;
const ALREADY_LISTENING = 202;

// Every code of libPelmora, libTarnwell and the bindings: code -> { name, meaning }, from the one
// table of codes (in a checkout, codes.json here is a link to common/codes.json).
function loadCodes() {
  try {
    const table = JSON.parse(fs.readFileSync(path.join(__dirname, 'codes.json'), 'utf8'));
    return Object.fromEntries(table.codes.map((c) => [c.code, { name: c.name, meaning: c.meaning }]));
  } catch {
    return {}; // a package shipped without it: errors still carry their codes
  }
}
const codes = loadCodes();

class PelmoraError extends Error {
  constructor(code, operation, detail = '') {
    const { name = '', meaning = 'an unknown code' } = codes[code] || {};
    super(`${operation} failed with code ${code}${name ? ` (${name})` : ''}: ${meaning}${detail}`);
    this.name = 'PelmoraError';
    this.code = code;
    this.codeName = name;
    this.meaning = meaning;
  }
}

function pkgConfigLibdir() {
  try {
    return execFileSync('pkg-config', ['--variable=libdir', 'pelmora'], {
      encoding: 'utf8', timeout: PKG_CONFIG_TIMEOUT_MS, stdio: ['ignore', 'pipe', 'ignore'],
    }).trim() || null;
  } catch {
    return null; // no pkg-config, or no installed Pelmora
  }
}

// Where libPelmora is looked for, in order, as [place, path or null]: $PELMORA_LIBRARY alone when
// set (a library named on purpose is never swapped for another); else this checkout's build, the
// loader's search path, an installed Pelmora's libdir. pkg-config runs only when it comes to it.
function* libraryCandidates() {
  if (process.env.PELMORA_LIBRARY) {
    yield ['PELMORA_LIBRARY', process.env.PELMORA_LIBRARY];
    return;
  }
  if (IN_CHECKOUT) yield ["this checkout's build", path.join(CHECKOUT, 'build', 'code', SONAME)];
  yield ["the loader's search path", SONAME];
  const libdir = pkgConfigLibdir();
  yield ['pkg-config pelmora', libdir && path.join(libdir, SONAME)];
}

let loadedPath = null;
function library() {
  if (loadedPath !== null) return native;
  const tried = [];
  for (const [place, candidate] of libraryCandidates()) {
    if (!candidate) {
      tried.push(`${place}: no installed Pelmora`);
      continue;
    }
    try {
      loadedPath = native.load(candidate);
      return native;
    } catch (e) {
      tried.push(`${place}: ${e.message}`);
    }
  }
  throw new PelmoraError(NO_LIBRARY, 'loading libPelmora', `; tried:\n  ${tried.join('\n  ')}`);
}

// The path libPelmora was loaded from, loading it now if need be.
function libraryPath() {
  library();
  return loadedPath;
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
  if (active !== null) throw new PelmoraError(ALREADY_LISTENING, 'listen');
  const listener = new Listener();
  active = listener;
  return listener;
}

// Plain names only, so that Node's reading of CommonJS exports gives ESM importers each of them:
// import { listen } from 'pelmora'.
module.exports = {
  init, startAdbServer, listen, libraryPath, Listener, PelmoraError, codes,
};
