// What the agent needs to run the coding tools: finding them on the PATH, reading
// their JSON lines, and ending them with everything they started.
import { accessSync, constants } from 'node:fs';
import net from 'node:net';
import path from 'node:path';

const LONGEST_LINE = 4 * 1024 * 1024;

// Ends a tool's process group: the tool and whatever it started.
export function end(child) {
  try {
    process.kill(-child.pid, 'SIGTERM');
  } catch {
    child.kill('SIGTERM');
  }
}

// Calls `onLine` with each line the stream gives. A line longer than `longest` is
// dropped whole, up to its end, and `onDropped` hears of it once.
export function lines(stream, onLine, { longest = LONGEST_LINE, onDropped = () => {} } = {}) {
  let buffer = '';
  let dropping = false;
  stream.setEncoding('utf8');
  stream.on('data', (data) => {
    // Only the new data is searched for the line's end, so a long line costs once.
    let from = buffer.length;
    buffer += data;
    let at;
    while ((at = buffer.indexOf('\n', from)) >= 0) {
      const line = buffer.slice(0, at);
      buffer = buffer.slice(at + 1);
      from = 0;
      if (dropping) dropping = false;
      else onLine(line);
    }
    if (buffer.length > longest) {
      if (!dropping) onDropped();
      buffer = '';
      dropping = true;
    }
  });
}

// Calls `onEvent` with each JSON object the stream prints on a line of its own;
// other lines are skipped.
export function jsonLines(stream, onEvent) {
  lines(stream, (line) => {
    const text = line.trim();
    if (!text.startsWith('{')) return;
    let event;
    try { event = JSON.parse(text); } catch { return; }
    if (event && typeof event === 'object') onEvent(event);
  });
}

// A folder as the hub names it ("~" is the home folder), as a path here; not a string: empty.
export function folderPath(value) {
  return (typeof value === 'string' ? value.slice(0, 4096) : '').replace(/^~(?=\/|$)/, process.env.HOME || '~');
}

export function onPath(command) {
  for (const dir of (process.env.PATH || '').split(':')) {
    if (!dir) continue;
    try {
      accessSync(path.join(dir, command), constants.X_OK);
      return true;
    } catch {
      // not here
    }
  }
  return false;
}

// What this computer offers the hub: whether it runs the assistant's turns, and with what.
export function hello() {
  const agents = ['claude', 'codex'].filter(onPath);
  return { type: 'hello', turns: agents.length > 0, agents };
}

// One request line to a Unix socket, and its one answer line as JSON. Resolves
// {answer}, or {failed} with why: 'unreachable', 'late', 'hung up' or 'nonsense'.
export function askSocket(socketPath, line, { waitMs = 0, longest = 64 * 1024 } = {}) {
  return new Promise((resolve) => {
    const connection = net.createConnection(socketPath);
    let buffer = '';
    let done = false;
    let timer = null;
    const finish = (result) => {
      if (done) return;
      done = true;
      clearTimeout(timer);
      connection.destroy();
      resolve(result);
    };
    if (waitMs > 0) timer = setTimeout(() => finish({ failed: 'late' }), waitMs);
    connection.setEncoding('utf8');
    connection.on('connect', () => connection.write(`${line}\n`));
    connection.on('data', (data) => {
      buffer += data;
      const at = buffer.indexOf('\n');
      if (at < 0) {
        if (buffer.length > longest) finish({ failed: 'nonsense' });
        return;
      }
      try {
        const answer = JSON.parse(buffer.slice(0, at));
        finish(answer && typeof answer === 'object' ? { answer } : { failed: 'nonsense' });
      } catch {
        finish({ failed: 'nonsense' });
      }
    });
    connection.on('error', () => finish({ failed: 'unreachable' }));
    connection.on('close', () => finish({ failed: 'hung up' }));
  });
}
