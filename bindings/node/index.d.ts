// Node.js and Electron binding of libPelmora.
import { EventEmitter } from 'node:events';

/** A connection status, as the report names it. */
export type Status =
  | 'NotConnect' | 'MtpConnect' | 'AdbConnect' | 'OfflineConnect' | 'UnauthoredConnect' | 'AuthoredConnect';

/** One entry of a report: a device whose status changed. */
export interface Change {
  key_serial: string;
  actual_serial: string;
  old_status: Status;
  new_status: Status;
  vid_manufacturer: string;
  os_version: string;
  model: string;
  manufacturer: string;
  vid: number;
  pid: number;
  adb_error_code: number;
}

/** Every error the binding throws: a non-zero code of libPelmora (or, from startAdbServer, of
 *  libTarnwell), or of the binding itself (201: libPelmora cannot be loaded, the message names
 *  every place tried; 202: already listening), with its name and meaning from the table of codes. */
export class PelmoraError extends Error {
  readonly code: number;
  /** e.g. 'TARNWELL_ERR_NO_ADB'; '' for a code the table does not know */
  readonly codeName: string;
  readonly meaning: string;
}

/** The table of codes: code -> its name and meaning. */
export const codes: Readonly<Record<number, { readonly name: string; readonly meaning: string }>>;

export interface Folders {
  /** holds the four .ini files */
  configDir: string;
  /** handed to the ADB client; an executable adb in it is used first */
  resourceDir: string;
  /** where Pelmora.log is written */
  logDir: string;
}

/** Loads libPelmora ($PELMORA_LIBRARY when set; else this checkout's build/code, the loader's
 *  search path, pkg-config's libdir) and initialises it. Throws PelmoraError (1: a folder is
 *  empty; 2: iManufactureAndiProduct.ini cannot be read; 201: no libPelmora found). */
export function init(folders: Folders): void;

/** Makes sure an ADB server answers, starting one if need be (killed: start it anew), off the
 *  event loop. Rejects with PelmoraError carrying libTarnwell's code. */
export function startAdbServer(options?: { killed?: boolean }): Promise<void>;

/** Starts listening. One listener at a time per process: a second listen() throws until stop(). */
export function listen(): Listener;

export class Listener extends EventEmitter {
  readonly stopped: boolean;
  /** Stops listening; reports not yet delivered are dropped. The process may then exit. */
  stop(): void;
  /** Whether listening keeps the event loop alive (the default, until stop()). */
  ref(): this;
  unref(): this;
  on(event: 'change', listener: (change: Change) => void): this;
  on(event: 'report', listener: (changed: Change[]) => void): this;
  on(event: 'error', listener: (error: Error) => void): this;
  once(event: 'change', listener: (change: Change) => void): this;
  once(event: 'report', listener: (changed: Change[]) => void): this;
  once(event: 'error', listener: (error: Error) => void): this;
}

/** The path libPelmora was loaded from, loading it now if need be. */
export function libraryPath(): string;
