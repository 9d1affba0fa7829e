// The agent: holds this computer's link to the hub on /agent/ws and tells the
// desktop app what happens through the lines it prints. The app reads these
// markers anywhere in a line, with no escaping, so the agent prints only lines of
// its own making: never a payload, a close reason or an error text from the hub.
// Markers: "hub connected", "hub closed <code>", "claude-code {…}",
// "clipboard-ask {…}" (a JSON the agent builds from checked values), "stay-awake {…}"
// (the state of keeping this computer awake, from power.mjs), "clipboard-received {…}"
// (another device's clipboard landed here, from receive.mjs). Commands from the app
// arrive as JSON lines on stdin; the end of stdin means the app is gone. The
// protocol with the hub is written down in agent/README.md.
import { createRequire } from 'node:module';
import { mkdirSync } from 'node:fs';
import path from 'node:path';
import { Clipboard } from './clipboard.mjs';
import { Power } from './power.mjs';
import { Receive } from './receive.mjs';
import { screenshot } from './screen.mjs';
import { Sessions } from './sessions.mjs';
import { folderPath, hello, lines, onPath } from './tools.mjs';

const require = createRequire(import.meta.url);

function loadWebSocket() {
  // Debian keeps its Node modules outside the default search path of some builds.
  for (const name of ['ws', '/usr/share/nodejs/ws', '/usr/lib/nodejs/ws']) {
    try {
      return require(name);
    } catch {
      // try the next place
    }
  }
  return null;
}

function say(text) {
  process.stdout.write(`${new Date().toISOString()} ${text}\n`);
}

// A word from outside enters a line only when it is a short plain identifier.
function word(value) {
  return typeof value === 'string' && /^[A-Za-z][\w.-]{0,39}$/.test(value) ? value : null;
}

const hubUrl = (process.env.ZUV_HUB_URL || '').replace(/^http:\/\//, 'ws://');
const token = process.env.ZUV_AGENT_TOKEN || '';
const WebSocket = loadWebSocket();

// Exit codes: 0 when asked to stop, 75 when the app should start us again later.
const TEMPFAIL = 75;
// A ping every 25 s; a link with no pong for 60 s after a ping is dead (a suspend,
// a network change) and is dropped and dialled again. Both can be shortened for tests.
const PING_MS = Number(process.env.ZUV_AGENT_PING_MS) || 25000;
const PONG_WAIT_MS = Number(process.env.ZUV_AGENT_PONG_WAIT_MS) || 60000;

say(`agent starting, node ${process.version}`);
say(`claude-code ${JSON.stringify({ found: onPath('claude') })}`);

if (!WebSocket) {
  say('agent cannot run: the Node module "ws" is missing (Debian package node-ws)');
  process.exit(1);
}
if (!hubUrl) {
  say('agent cannot run: ZUV_HUB_URL is not set');
  process.exit(1);
}

let socket = null;
let attempt = 0;
let stopping = false;
let heartbeat = null;
let pongDeadline = null;

function stopHeartbeat() {
  clearInterval(heartbeat);
  clearTimeout(pongDeadline);
  heartbeat = null;
  pongDeadline = null;
}

function connect() {
  const current = new WebSocket(hubUrl, { headers: { authorization: `Bearer ${token}` } });
  socket = current;
  current.on('open', () => {
    attempt = 0;
    say('hub connected');
    // Whether this computer can run turns, and with what; the sessions at work here.
    toHub({ ...hello(), sessions: sessions.ids() });
    heartbeat = setInterval(() => {
      current.ping();
      if (!pongDeadline) {
        pongDeadline = setTimeout(() => {
          say('hub silent: no pong in time, reconnecting');
          current.terminate(); // 'close' follows with 1006 and dials again
        }, PONG_WAIT_MS);
      }
    }, PING_MS);
  });
  current.on('pong', () => {
    clearTimeout(pongDeadline);
    pongDeadline = null;
  });
  current.on('message', (data, isBinary) => {
    // Only the message's kind is told, never what it carries.
    let kind = null;
    let message = null;
    if (!isBinary) {
      try {
        message = JSON.parse(String(data));
        kind = word(message && (message.type ?? message.kind));
      } catch {
        kind = null;
      }
    }
    if (kind === 'clipboard') {
      clipboard.ask(message);
      return;
    }
    if (kind === 'session-turn') {
      sessions.turn(message);
      return;
    }
    if (kind === 'session-stop') {
      sessions.halt(message);
      return;
    }
    if (kind === 'permission-answer') {
      sessions.answer(message);
      return;
    }
    if (kind === 'session-changes' || kind === 'session-projects' || kind === 'session-terminal') {
      answerHub(kind, message);
      return;
    }
    if (kind === 'screen') {
      // A picture of this screen for the phone, through the screen helper.
      const id = typeof message.id === 'string' && message.id.length <= 64 ? message.id : null;
      if (id) screenshot(process.env.ZUV_SCREEN_SOCKET || '').then((answer) => toHub({ type: 'screen-reply', id, ...answer }));
      return;
    }
    if (kind === 'clipboard-set') {
      receive.handle(message);
      return;
    }
    if (kind === 'power') {
      // The phone's power commands: the same checks as the app's, then an acknowledgement.
      const id = typeof message.id === 'string' || Number.isSafeInteger(message.id) ? message.id : null;
      if (typeof message.power === 'string') power.handle({ power: message.power, minutes: message.minutes });
      if (id !== null) toHub({ type: 'power-reply', id, result: { ok: true } });
      return;
    }
    say(kind ? `hub message ${kind}` : 'hub message');
  });
  current.on('unexpected-response', (request, response) => {
    // ws prints the same words in its own error; say them once, with only the status.
    const status = Number.isInteger(response.statusCode) ? response.statusCode : 0;
    say(`Unexpected server response: ${status}`);
    request.destroy();
    retry();
  });
  current.on('error', (error) => {
    if (String(error.message).startsWith('Unexpected server response')) return;
    say(`hub error ${word(error.code) || 'unknown'}`);
  });
  current.on('close', (code) => {
    stopHeartbeat();
    sessions.withdraw();
    const number = Number.isInteger(code) ? code : 0;
    say(`hub closed ${number}`);
    if (stopping || socket !== current) return;
    if (number === 4401) {
      // No longer authorised: the app unpairs and stops us.
      return;
    }
    if (number === 4409) {
      // Another agent took the link; let the app start us again after its delay.
      process.exit(TEMPFAIL);
    }
    retry();
  });
}

let retryTimer = null;
function retry() {
  if (stopping || retryTimer) return;
  attempt += 1;
  const delay = Math.min(30, 2 ** Math.min(attempt, 5)) * 1000;
  retryTimer = setTimeout(() => {
    retryTimer = null;
    connect();
  }, delay);
}

function toHub(message) {
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
}

// The phone's clipboard requests go to the app and its answers back to the hub.
const clipboard = new Clipboard({
  outbox: path.join(process.env.ZUV_WORK_DIR || '.', 'clipboard'),
  say,
  toHub,
});

// The app's power commands: logind's inhibitors, held for as long as asked.
const power = new Power({ say, statusFile: process.env.ZUV_AWAKE_STATUS || '', toHub });

// Agent sessions in folders of this computer, and their tool requests; the
// chat's turns run as sessions too, when Claude Code or Codex is on the PATH.
const workDir = process.env.ZUV_WORK_DIR || '.';
mkdirSync(workDir, { recursive: true });
const sessions = new Sessions({ say, toHub, socketPath: path.join(workDir, 'approve.sock') });

// Clipboards sent here from the account's other devices.
const receive = new Receive({
  hub: hubUrl.replace(/^ws(s?):\/\//, 'http$1://').replace(/\/agent\/ws.*$/, ''),
  outbox: path.join(workDir, 'clipboard'),
  clipboard,
  say,
  toHub,
});

// The hub's questions about a session's folder, answered on the same socket.
async function answerHub(kind, message) {
  const id = typeof message.id === 'string' && message.id.length <= 64 ? message.id : null;
  if (!id) return;
  const cwd = folderPath(message.cwd);
  let answer;
  try {
    if (kind === 'session-changes') answer = { result: await sessions.changes(cwd) };
    else if (kind === 'session-projects') answer = { result: sessions.projects() };
    else answer = sessions.terminal(message);
  } catch {
    answer = { error: 'The folder could not be read.' };
  }
  toHub({ type: `${kind}-reply`, id, ...answer });
}

// The app's lines, read with a bound: a runaway line is dropped, not kept.
lines(process.stdin, command, { longest: 1024 * 1024, onDropped: () => say('command ignored: too long') });
function command(line) {
  try {
    const command = JSON.parse(line);
    if (command && typeof command === 'object' && Number.isSafeInteger(command.clipboard)) {
      clipboard.answered(command);
      return;
    }
    if (command && typeof command === 'object' && typeof command.power === 'string') {
      power.handle(command);
      return;
    }
    const keys = command && typeof command === 'object' ? Object.keys(command).map(word).filter(Boolean) : [];
    say(`command ${keys.join(',')}`);
  } catch {
    say('command ignored: not JSON');
  }
}
// The app holds the other end of stdin; when it closes, the app is gone.
process.stdin.on('end', () => stop());
process.stdin.on('close', () => stop());

function stop() {
  if (stopping) return;
  stopping = true;
  clipboard.stop();
  power.stop();
  sessions.stop();
  clearTimeout(retryTimer);
  stopHeartbeat();
  if (socket) socket.close(1000);
  process.exit(0);
}
process.on('SIGTERM', stop);
process.on('SIGINT', stop);

connect();
