// What another device of the account sends to this computer's clipboard: a text
// or a picture goes onto the clipboard through the app (which owns the X11
// selection), files are saved in the Downloads folder and put on the clipboard
// as a file list. The app hears of it from
// the line "clipboard-received {…}" and tells the person.
import { randomUUID } from 'node:crypto';
import { createWriteStream, existsSync, mkdirSync, readFileSync, renameSync, rmSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { pipeline } from 'node:stream/promises';
import { Readable, Transform } from 'node:stream';

const LONGEST_TEXT = 100000;
const MOST_FILES = 50;
const LARGEST_FILE = 100 * 1024 * 1024;
const KEY = /^[A-Za-z0-9_-]{1,64}$/;

// A failure in our own words, fit to show; any other is told in general terms.
class Refusal extends Error {}

// A received file's name in the Downloads folder: no folders, no leading dots.
function downloadName(value) {
  const base = path.basename(typeof value === 'string' ? value : '').replace(/[\0/]/g, '_').replace(/^\.+/, '');
  return base.slice(0, 200) || 'file';
}

// The Downloads folder as the desktop names it (xdg-user-dirs), else ~/Downloads.
export function downloadsFolder(home = process.env.HOME || '/tmp', config = process.env.XDG_CONFIG_HOME || path.join(home, '.config')) {
  try {
    const dirs = readFileSync(path.join(config, 'user-dirs.dirs'), 'utf8');
    const match = /^XDG_DOWNLOAD_DIR="([^"\n]*)"/m.exec(dirs);
    if (match) {
      const folder = match[1].replace(/^\$HOME(?=\/|$)/, home);
      if (path.isAbsolute(folder) && folder !== home) return folder;
    }
  } catch {
    // no such file: the default
  }
  return path.join(home, 'Downloads');
}

// "name.ext", else "name (2).ext", and so on: nothing there is overwritten.
function freeName(folder, name) {
  const ext = path.extname(name);
  const stem = name.slice(0, name.length - ext.length);
  for (let n = 1; n < 10000; n += 1) {
    const candidate = path.join(folder, n === 1 ? name : `${stem} (${n})${ext}`);
    if (!existsSync(candidate)) return candidate;
  }
  return path.join(folder, `${stem} ${randomUUID()}${ext}`);
}

export class Receive {
  constructor({ hub, outbox, clipboard, say, toHub, downloads = downloadsFolder() }) {
    this.hub = hub; // http(s)://host:port of the hub, for its media
    this.outbox = outbox;
    this.clipboard = clipboard;
    this.say = say;
    this.toHub = toHub;
    this.downloads = downloads;
  }

  async download(key, into) {
    const response = await fetch(`${this.hub}/media/${key}`);
    if (!response.ok || !response.body) throw new Refusal('The file could not be fetched from the hub.');
    let size = 0;
    const limit = new Transform({
      transform(chunk, encoding, done) {
        size += chunk.length;
        done(size > LARGEST_FILE ? new Refusal('The file is larger than 100 MB.') : null, chunk);
      },
    });
    const part = `${into}.part`;
    try {
      await pipeline(Readable.fromWeb(response.body), limit, createWriteStream(part, { mode: 0o600 }));
      renameSync(part, into);
    } finally {
      rmSync(part, { force: true });
    }
  }

  async handle(message) {
    const id = typeof message.id === 'string' && message.id.length <= 64 ? message.id : null;
    if (!id) return;
    const from = typeof message.from === 'string' && message.from.trim() ? message.from.trim().slice(0, 100) : 'another device';
    const files = Array.isArray(message.files) ? message.files.filter((f) => f && KEY.test(f.key || '')) : [];
    const hasText = typeof message.text === 'string' && message.text.length > 0;
    try {
      let info;
      if (hasText) {
        if (message.text.length > LONGEST_TEXT) throw new Refusal('The text is too long (100,000 characters at most).');
        await this.put('text.txt', false, (file) => writeFileSync(file, message.text, { mode: 0o600 }));
        info = { from, kind: 'text' };
      } else if (message.image === true && files.length === 1) {
        await this.put('Clipboard.png', true, (file) => this.download(files[0].key, file));
        info = { from, kind: 'image' };
      } else if (files.length > 0 && files.length <= MOST_FILES) {
        mkdirSync(this.downloads, { recursive: true });
        const saved = [];
        for (const file of files) {
          const where = freeName(this.downloads, downloadName(file.name));
          await this.download(file.key, where);
          saved.push(where);
        }
        // Saved is what counts; on the clipboard too, so that a paste in the file manager copies them.
        await this.ask({ op: 'put', files: saved }).catch(() => {});
        info = { from, kind: 'files', count: files.length };
      } else {
        throw new Refusal(files.length > MOST_FILES ? 'Up to 50 files at a time.' : 'Nothing was sent.');
      }
      this.say(`clipboard-received ${JSON.stringify(info)}`);
      this.toHub({ type: 'clipboard-set-reply', id, result: { ok: true } });
    } catch (error) {
      this.toHub({ type: 'clipboard-set-reply', id, error: error instanceof Refusal ? error.message : 'It could not be received here.' });
    }
  }

  // Onto the clipboard through the app: `fill` writes the file in a folder of the
  // outbox, which goes once the app has answered.
  async put(name, image, fill) {
    const folder = path.join(this.outbox, `in-${randomUUID()}`);
    mkdirSync(folder, { recursive: true });
    try {
      const file = path.join(folder, name);
      await fill(file);
      await this.ask({ op: 'put', path: file, image });
    } finally {
      rmSync(folder, { recursive: true, force: true });
    }
  }

  async ask(request) {
    const answer = await this.clipboard.askApp(request);
    if (answer.error) throw new Refusal(answer.error);
  }
}

