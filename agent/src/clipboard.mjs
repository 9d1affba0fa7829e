// The phone's requests for this computer's clipboard history: from the hub to
// the app as "clipboard-ask {…}" lines, and the app's answers back to the hub.
// Only checked values of known keys reach the line; files travel through the
// outbox folder the app shares with us, never in a line.
import { randomUUID } from 'node:crypto';
import { mkdirSync, readdirSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import path from 'node:path';

const OPS = new Set(['list', 'item', 'use', 'pin', 'delete', 'add']); // 'put' is ours alone: see receive.mjs
const MAX_FILE = 50 * 1024 * 1024;
const MAX_PENDING = 10000;
const ANSWER_WAIT_MS = 120000;
const OLD_MS = 60 * 60 * 1000;

// A name the file system takes as it is: no folders, no dots at the start.
function safeName(value) {
  const base = path.basename(typeof value === 'string' ? value : '').replace(/[^\w.-]/g, '_').replace(/^\.+/, '');
  return base.slice(0, 100) || 'file';
}

export class Clipboard {
  constructor({ outbox, say, toHub, now = () => Date.now() }) {
    this.outbox = outbox;
    this.say = say;
    this.toHub = toHub;
    this.now = now;
    this.next = 1;
    this.pending = new Map(); // our id → { hubId, folder, at }
    this.sweep();
    this.sweeper = setInterval(() => this.sweep(), 10 * 60 * 1000);
    this.sweeper.unref();
  }

  stop() {
    clearInterval(this.sweeper);
  }

  // Removes what the phone and the app left in the outbox over an hour ago.
  sweep() {
    let names = [];
    try {
      names = readdirSync(this.outbox);
    } catch {
      return;
    }
    for (const name of names) {
      if (!name.startsWith('out-') && !name.startsWith('in-')) continue;
      const folder = path.join(this.outbox, name);
      try {
        if (this.now() - statSync(folder).mtimeMs > OLD_MS) rmSync(folder, { recursive: true, force: true });
      } catch {
        // gone meanwhile
      }
    }
    for (const [id, request] of this.pending) {
      if (this.now() - request.at > ANSWER_WAIT_MS) {
        this.pending.delete(id);
        if (request.resolve) request.resolve({ error: 'The computer did not answer in time.' });
        else this.toHub({ type: 'clipboard-reply', id: request.hubId, error: 'The computer did not answer in time.' });
      }
    }
  }

  // A request from the hub: checked, its file put in the outbox, and asked of the app.
  ask(message) {
    const hubId = message && (typeof message.id === 'string' || Number.isSafeInteger(message.id)) ? message.id : null;
    if (hubId === null) return; // nobody to answer
    const refuse = (error) => this.toHub({ type: 'clipboard-reply', id: hubId, error });
    if (typeof message.op !== 'string' || !OPS.has(message.op)) return refuse('unknown op');
    if (this.pending.size >= MAX_PENDING) return refuse('Too many requests at once.');
    const request = { id: this.next++, op: message.op };
    if (typeof message.q === 'string') request.q = message.q.slice(0, 1000);
    for (const key of ['offset', 'limit', 'clip']) {
      if (Number.isSafeInteger(message[key])) request[key] = message[key];
    }
    let folder = null;
    if (message.op === 'add') {
      const file = message.file;
      if (!file || typeof file.data !== 'string') return refuse('Nothing to add.');
      const data = Buffer.from(file.data, 'base64');
      if (data.length === 0 || data.length > MAX_FILE) return refuse('Nothing to add.');
      try {
        folder = path.join(this.outbox, `in-${randomUUID()}`);
        mkdirSync(folder, { recursive: true });
        request.path = path.join(folder, safeName(file.name));
        writeFileSync(request.path, data);
      } catch {
        return refuse('The file could not be kept.');
      }
      request.image = message.image === true;
    }
    this.pending.set(request.id, { hubId, folder, at: this.now() });
    this.say(`clipboard-ask ${JSON.stringify(request)}`);
  }

  // Asks the app on our own account; resolves with its answer ({result} or {error}).
  askApp(request) {
    return new Promise((resolve) => {
      const id = this.next++;
      this.pending.set(id, { resolve, folder: null, at: this.now() });
      this.say(`clipboard-ask ${JSON.stringify({ ...request, id })}`);
    });
  }

  // An answer from the app: a picture's file goes to the hub as data.
  answered(answer) {
    const request = this.pending.get(answer.clipboard);
    if (!request) return;
    this.pending.delete(answer.clipboard);
    if (request.resolve) {
      request.resolve(typeof answer.error === 'string' ? { error: answer.error } : { result: answer.result });
      return;
    }
    if (request.folder) rmSync(request.folder, { recursive: true, force: true });
    const reply = { type: 'clipboard-reply', id: request.hubId };
    if (typeof answer.error === 'string') {
      reply.error = answer.error;
    } else if (answer.result && typeof answer.result === 'object') {
      const result = { ...answer.result };
      if (typeof result.path === 'string' && result.kind === 'image') {
        const file = path.resolve(result.path);
        if (!file.startsWith(path.resolve(this.outbox) + path.sep)) {
          reply.error = "The picture couldn't be read.";
          return this.toHub(reply);
        }
        try {
          result.data = readFileSync(file).toString('base64');
          result.name = path.basename(file);
          rmSync(path.dirname(file), { recursive: true, force: true });
        } catch {
          reply.error = "The picture couldn't be read.";
          return this.toHub(reply);
        }
        delete result.path;
      }
      reply.result = result;
    } else {
      return;
    }
    this.toHub(reply);
  }
}
