// What the agent needs to run the coding tools: finding them on the PATH, reading
// their JSON lines, and ending them with everything they started.
import { accessSync, constants } from 'node:fs';
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

// Calls `onEvent` with each JSON object the stream prints on a line of its own;
// other lines are skipped, and a runaway line is dropped rather than kept.
export function jsonLines(stream, onEvent) {
  let buffer = '';
  stream.setEncoding('utf8');
  stream.on('data', (data) => {
    // Only the new data is searched for the line's end, so a long line costs once.
    let from = buffer.length;
    buffer += data;
    let at;
    while ((at = buffer.indexOf('\n', from)) >= 0) {
      const line = buffer.slice(0, at).trim();
      buffer = buffer.slice(at + 1);
      from = 0;
      if (!line.startsWith('{')) continue;
      let event;
      try { event = JSON.parse(line); } catch { continue; }
      if (event && typeof event === 'object') onEvent(event);
    }
    if (buffer.length > LONGEST_LINE) buffer = '';
  });
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
