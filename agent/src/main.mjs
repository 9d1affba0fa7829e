// The agent: holds this computer's link to the hub on /agent/ws and tells the
// desktop app what happens through the lines it prints. The app reads these
// markers: "hub connected", "hub closed <code>", "claude-code {…}",
// "agent-busy {…}". Commands from the app arrive as JSON lines on stdin.
import { createRequire } from 'node:module';
import { createInterface } from 'node:readline';
import { accessSync, constants } from 'node:fs';
import path from 'node:path';

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

const hubUrl = (process.env.ZUV_HUB_URL || '').replace(/^http:\/\//, 'ws://');
const token = process.env.ZUV_AGENT_TOKEN || '';
const WebSocket = loadWebSocket();

// Exit codes: 0 when asked to stop, 75 when the app should start us again later.
const TEMPFAIL = 75;

function findOnPath(command) {
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

say(`agent starting, node ${process.version}`);
say(`claude-code ${JSON.stringify({ found: findOnPath('claude') })}`);

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

function connect() {
  socket = new WebSocket(hubUrl, { headers: { authorization: `Bearer ${token}` } });
  socket.on('open', () => {
    attempt = 0;
    say('hub connected');
    heartbeat = setInterval(() => socket.ping(), 25000);
  });
  socket.on('message', (data) => {
    say(`hub message ${String(data).slice(0, 200)}`);
  });
  socket.on('unexpected-response', (request, response) => {
    // ws prints the same words in its own error; say them once, plainly.
    say(`Unexpected server response: ${response.statusCode}`);
    request.destroy();
    retry();
  });
  socket.on('error', (error) => {
    if (!String(error.message).startsWith('Unexpected server response')) say(`hub error ${error.message}`);
  });
  socket.on('close', (code) => {
    clearInterval(heartbeat);
    say(`hub closed ${code}`);
    if (stopping) return;
    if (code === 4401) {
      // No longer authorised: the app unpairs and stops us.
      return;
    }
    if (code === 4409) {
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

createInterface({ input: process.stdin }).on('line', (line) => {
  try {
    const command = JSON.parse(line);
    say(`command ${Object.keys(command).join(',')}`);
  } catch {
    say('command ignored: not JSON');
  }
});

function stop() {
  stopping = true;
  clearTimeout(retryTimer);
  if (socket) socket.close(1000);
  process.exit(0);
}
process.on('SIGTERM', stop);
process.on('SIGINT', stop);

connect();
