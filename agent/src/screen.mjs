// The screen, through the screen helper the app keeps running: one request line
// on its Unix socket, one JSON answer line. A capture comes as a PNG file in the
// helper's captures folder; it is read, removed and sent on as data.
import { readFileSync, rmSync } from 'node:fs';
import path from 'node:path';
import { askSocket } from './tools.mjs';

const LONGEST_ANSWER = 64 * 1024;
// A portal capture may wait for the person to agree on the desktop.
const ANSWER_WAIT_MS = Number(process.env.ZUV_SCREEN_WAIT_MS) || 70000;

const FAILURES = {
  unreachable: 'The screen helper is not running.',
  late: 'The screen helper did not answer in time.',
  'hung up': 'The screen helper hung up.',
  nonsense: 'The screen helper answered nonsense.',
};

export async function askScreen(socketPath, request) {
  if (!socketPath) return { ok: false, error: 'This computer has no screen helper.' };
  const { answer, failed } = await askSocket(socketPath, request, { waitMs: ANSWER_WAIT_MS, longest: LONGEST_ANSWER });
  return answer || { ok: false, error: FAILURES[failed] };
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
