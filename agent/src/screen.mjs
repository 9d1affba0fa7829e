// The screen, through the screen helper the app keeps running: one request line
// on its Unix socket, one JSON answer line. A capture comes as a PNG file in the
// helper's captures folder; it is read, removed and sent on as data.
import { readFileSync, rmSync } from 'node:fs';
import net from 'node:net';
import path from 'node:path';

const LONGEST_ANSWER = 64 * 1024;
// A portal capture may wait for the person to agree on the desktop.
const ANSWER_WAIT_MS = Number(process.env.ZUV_SCREEN_WAIT_MS) || 70000;

export function askScreen(socketPath, request) {
  return new Promise((resolve) => {
    if (!socketPath) {
      resolve({ ok: false, error: 'This computer has no screen helper.' });
      return;
    }
    const connection = net.createConnection(socketPath);
    let buffer = '';
    let done = false;
    const finish = (answer) => {
      if (done) return;
      done = true;
      clearTimeout(timer);
      connection.destroy();
      resolve(answer);
    };
    const timer = setTimeout(() => finish({ ok: false, error: 'The screen helper did not answer in time.' }), ANSWER_WAIT_MS);
    connection.setEncoding('utf8');
    connection.on('connect', () => connection.write(`${request}\n`));
    connection.on('data', (data) => {
      buffer += data;
      const at = buffer.indexOf('\n');
      if (at < 0) {
        if (buffer.length > LONGEST_ANSWER) finish({ ok: false, error: 'The screen helper answered nonsense.' });
        return;
      }
      try {
        const answer = JSON.parse(buffer.slice(0, at));
        finish(answer && typeof answer === 'object' ? answer : { ok: false, error: 'The screen helper answered nonsense.' });
      } catch {
        finish({ ok: false, error: 'The screen helper answered nonsense.' });
      }
    });
    connection.on('error', () => finish({ ok: false, error: 'The screen helper is not running.' }));
    connection.on('close', () => finish({ ok: false, error: 'The screen helper hung up.' }));
  });
}

// A picture of the whole screen, as the hub wants it: {result} or {error}.
export async function screenshot(socketPath) {
  const answer = await askScreen(socketPath, 'capture');
  if (answer.ok !== true) {
    return { error: typeof answer.error === 'string' && answer.error ? answer.error.slice(0, 300) : 'The screen could not be captured.' };
  }
  const captures = path.join(path.dirname(path.resolve(socketPath)), 'captures') + path.sep;
  const file = typeof answer.path === 'string' ? path.resolve(answer.path) : '';
  if (!file.startsWith(captures)) return { error: 'The screen helper named a file outside its folder.' };
  try {
    const data = readFileSync(file).toString('base64');
    return { result: { mime: 'image/png', data, width: answer.width, height: answer.height } };
  } catch {
    return { error: "The screen's picture could not be read." };
  } finally {
    rmSync(file, { force: true });
  }
}
