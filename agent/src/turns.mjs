// Turns of the assistant run on this computer: the hub sends a person's message,
// Claude Code (or Codex) answers it in its non-interactive mode, and the hub hears
// the steps on the way and the answer at the end. What the tool prints is read
// as JSON lines; anything else is skipped. A turn that hangs is ended.
import { spawn } from 'node:child_process';
import { accessSync, constants } from 'node:fs';
import path from 'node:path';

const TURN_MS = Number(process.env.ZUV_TURN_TIMEOUT_MS) || 10 * 60 * 1000;
const LONGEST_TEXT = 100000;
const LONGEST_LINE = 4 * 1024 * 1024;

// Ends a turn's tool and everything it started.
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

// The command line of one turn for each tool.
function commandFor(agent, text) {
  if (agent === 'codex') return ['codex', ['exec', '--json', text]];
  return ['claude', ['-p', '--output-format', 'stream-json', '--verbose', text]];
}

// What one JSON line of the tool means for the person: a step, or the answer.
export function readEvent(event) {
  if (!event || typeof event !== 'object') return {};
  // Claude Code's stream: assistant messages with text and tool uses, then a result.
  if (event.type === 'result') {
    const text = typeof event.result === 'string' ? event.result : '';
    return event.is_error ? { failed: text || 'Claude Code reported an error.' } : { answer: text };
  }
  if (event.type === 'assistant' && event.message && Array.isArray(event.message.content)) {
    const tool = event.message.content.find((part) => part && part.type === 'tool_use' && typeof part.name === 'string');
    if (tool) return { step: `Using ${tool.name.slice(0, 40)}…` };
    if (event.message.content.some((part) => part && part.type === 'text')) return { step: 'Writing the answer…' };
  }
  // Codex's stream: items of the turn, the agent's last message is the answer.
  const item = event.item || event.msg;
  if (item && typeof item === 'object') {
    if ((item.type === 'agent_message' || item.item_type === 'assistant_message') && typeof item.text === 'string') {
      return { answer: item.text };
    }
    if (item.type === 'command_execution' || item.item_type === 'command_execution') return { step: 'Running a command…' };
  }
  return {};
}

export class Turns {
  constructor({ say, toHub }) {
    this.say = say;
    this.toHub = toHub;
    this.running = new Map(); // hub id → child
    this.agents = ['claude', 'codex'].filter(onPath);
  }

  hello() {
    return { type: 'hello', turns: this.agents.length > 0, agents: this.agents };
  }

  run(message) {
    const id = typeof message.id === 'string' && message.id.length <= 64 ? message.id : null;
    if (!id || this.running.has(id)) return;
    const text = typeof message.text === 'string' ? message.text.slice(0, LONGEST_TEXT) : '';
    const wanted = message.agent === 'codex' ? 'codex' : 'claude';
    const agent = this.agents.includes(wanted) ? wanted : this.agents[0];
    if (!agent || !text.trim()) {
      this.toHub({ type: 'turn-reply', id, error: 'This computer has neither Claude Code nor Codex to run the turn.' });
      return;
    }
    const [command, args] = commandFor(agent, text);
    let child;
    try {
      // A group of its own, so that ending the turn ends whatever the tool started too.
      child = spawn(command, args, { stdio: ['ignore', 'pipe', 'ignore'], cwd: process.env.HOME || process.cwd(), detached: true });
    } catch {
      this.toHub({ type: 'turn-reply', id, error: `${agent} could not start.` });
      return;
    }
    this.running.set(id, child);
    this.say(`turn ${agent} started`);
    let answer = null;
    let failed = null;
    const timer = setTimeout(() => {
      failed = 'The turn took too long and was stopped.';
      end(child);
    }, TURN_MS);
    jsonLines(child.stdout, (event) => {
      const meaning = readEvent(event);
      if (meaning.step) this.toHub({ type: 'turn-step', id, step: meaning.step });
      if (meaning.answer !== undefined) answer = meaning.answer;
      if (meaning.failed) failed = meaning.failed;
    });
    const finish = (code) => {
      clearTimeout(timer);
      if (!this.running.has(id)) return;
      this.running.delete(id);
      this.say(`turn ${agent} ended`);
      if (failed || answer === null || answer === '') {
        this.toHub({ type: 'turn-reply', id, error: failed || `${agent === 'codex' ? 'Codex' : 'Claude Code'} ended without an answer (exit ${code ?? 'signal'}).` });
      } else {
        this.toHub({ type: 'turn-reply', id, text: answer.slice(0, LONGEST_TEXT) });
      }
    };
    child.on('error', () => { failed = failed || `${agent} could not start.`; finish(null); });
    child.on('close', (code) => finish(code));
  }

  cancel(message) {
    const child = this.running.get(message.id);
    if (child) end(child);
  }

  stop() {
    for (const child of this.running.values()) end(child);
  }
}
