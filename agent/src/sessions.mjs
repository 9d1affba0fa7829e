// Agent sessions: Claude Code (or Codex) working in a folder of this computer,
// started and continued from the hub; the chat's turns run here as sessions too.
// The hub keeps the sessions and their transcripts; here run the tools, one
// process per turn of a session, resumed by the tool's own session id. Claude
// Code asks before each tool through approve.mjs, whose questions reach the hub as
// "permission" messages and wait for the answer.
import { execFile, spawn } from 'node:child_process';
import { existsSync, readdirSync, rmSync, statSync } from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { end, folderPath, jsonLines, onPath } from './tools.mjs';

const APPROVE = fileURLToPath(new URL('./approve.mjs', import.meta.url));
const ID = /^[A-Za-z0-9_-]{1,64}$/;
const LONGEST_TEXT = 100000;
const LONGEST_DIFF = 200 * 1024;
const MOST_FILES = 300;
// A session's turn may work for an hour; a chat's turn, which someone waits for, ten minutes.
const SESSION_MS = Number(process.env.ZUV_SESSION_TIMEOUT_MS) || 60 * 60 * 1000;
const CHAT_MS = Number(process.env.ZUV_TURN_TIMEOUT_MS) || 10 * 60 * 1000;
const TERMINALS = ['x-terminal-emulator', 'gnome-terminal', 'konsole', 'xfce4-terminal', 'xterm'];

function text(value, longest) {
  return typeof value === 'string' ? value.slice(0, longest) : '';
}

// One line for a tool call: its command, its file, or its name.
function summary(tool, input) {
  const first = input && (input.command || input.file_path || input.path || input.pattern || input.url || input.description);
  return `${tool}${typeof first === 'string' ? `: ${first}` : ''}`.split('\n')[0].slice(0, 200);
}

function run(command, args, cwd, timeout = 15000) {
  return new Promise((resolve) => {
    execFile(command, args, { cwd, timeout, maxBuffer: 8 * 1024 * 1024, encoding: 'utf8' }, (error, stdout) => {
      resolve({ ok: !error || typeof error.code === 'number', code: error ? error.code : 0, out: stdout || '' });
    });
  });
}

// What Claude Code's cost report says, in the hub's terms.
function usageOf(event) {
  const u = event.usage;
  if (!u || typeof u !== 'object') return undefined;
  const number = (v) => (Number.isFinite(v) ? v : 0);
  return {
    ms: number(event.duration_ms),
    turns: number(event.num_turns),
    input: number(u.input_tokens),
    output: number(u.output_tokens),
    cached: number(u.cache_read_input_tokens),
    usd: number(event.total_cost_usd),
  };
}

export class Sessions {
  constructor({ say, toHub, socketPath }) {
    this.say = say;
    this.toHub = toHub;
    this.socketPath = socketPath;
    this.running = new Map(); // session id → { child, stopped }
    this.asking = new Map(); // question ref → the approval tool's connection
    this.next = 1;
    this.known = new Map(); // folder → last use, for the projects list
    try { rmSync(socketPath, { force: true }); } catch { /* none */ }
    this.server = net.createServer((connection) => this.asked(connection));
    this.server.on('error', () => say('sessions: the approval socket could not be opened'));
    this.server.listen(socketPath);
  }

  stop() {
    for (const { child } of this.running.values()) end(child);
    for (const connection of this.asking.values()) connection.destroy();
    this.server.close();
  }

  // The sessions at work here: the hub takes the others as lost.
  ids() {
    return [...this.running.keys()];
  }

  // A new session, or the next turn of one: {id, cwd, text, agent, model, effort, resume}.
  turn(message) {
    const id = ID.test(message.id || '') ? message.id : null;
    if (!id) return;
    const state = (fields) => this.toHub({ type: 'session-state', id, ...fields });
    if (this.running.has(id)) return state({ status: 'running' });
    const prompt = text(message.text, LONGEST_TEXT);
    const cwd = folderPath(message.cwd);
    let folder = false;
    try { folder = path.isAbsolute(cwd) && statSync(cwd).isDirectory(); } catch { folder = false; }
    if (!folder) return state({ status: 'failed', lastReply: `There is no folder ${cwd || '(none)'} on this computer.` });
    const agent = message.agent === 'codex' ? 'codex' : 'claude';
    if (!onPath(agent)) return state({ status: 'failed', lastReply: `${agent === 'codex' ? 'Codex' : 'Claude Code'} is not installed on this computer.` });
    if (!prompt.trim()) return state({ status: 'failed', lastReply: 'Nothing to do: the message is empty.' });
    this.known.set(cwd, Date.now());

    const model = text(message.model, 100);
    const resume = typeof message.resume === 'string' && /^[\w-]{1,100}$/.test(message.resume) ? message.resume : null;
    let args;
    if (agent === 'codex') {
      args = ['exec', '--json', ...(model ? ['-m', model] : []), ...(resume ? ['resume', resume] : []), prompt];
    } else {
      const mcp = { mcpServers: { zuv: { command: process.execPath, args: [APPROVE], env: { ZUV_APPROVE_SOCKET: this.socketPath, ZUV_SESSION: id } } } };
      args = ['-p', '--output-format', 'stream-json', '--verbose', '--mcp-config', JSON.stringify(mcp),
        '--permission-prompt-tool', 'mcp__zuv__approve', ...(model ? ['--model', model] : []),
        ...(resume ? ['--resume', resume] : []), prompt];
    }
    let child;
    try {
      child = spawn(agent, args, { stdio: ['ignore', 'pipe', 'ignore'], cwd, detached: true });
    } catch {
      return state({ status: 'failed', lastReply: `${agent} could not start.` });
    }
    const entry = { child, stopped: false };
    this.running.set(id, entry);
    state({ status: 'running' });
    this.say(`session ${agent} started`);
    let answer = null;
    let failed = null;
    let tokenId = resume;
    let usage;
    const timer = setTimeout(() => { failed = 'The turn took too long and was stopped.'; end(child); }, message.chat === true ? CHAT_MS : SESSION_MS);
    jsonLines(child.stdout, (event) => {
      if (typeof event.session_id === 'string' && /^[\w-]{1,100}$/.test(event.session_id)) tokenId = event.session_id;
      if (typeof event.thread_id === 'string' && /^[\w-]{1,100}$/.test(event.thread_id)) tokenId = event.thread_id;
      if (event.type === 'assistant' && event.message && Array.isArray(event.message.content)) {
        for (const part of event.message.content) {
          if (!part || typeof part !== 'object') continue;
          if (part.type === 'text' && typeof part.text === 'string' && part.text.trim()) {
            this.toHub({ type: 'session-item', id, item: { role: 'assistant', text: part.text.slice(0, LONGEST_TEXT), at: Date.now() } });
          } else if (part.type === 'tool_use' && typeof part.name === 'string') {
            const name = part.name.slice(0, 60);
            this.toHub({ type: 'session-step', id, step: `Using ${name}…` });
            this.toHub({ type: 'session-item', id, item: { role: 'tool', text: summary(name, part.input), at: Date.now() } });
          }
        }
      } else if (event.type === 'result') {
        usage = usageOf(event);
        if (event.is_error) failed = text(event.result, 2000) || 'Claude Code reported an error.';
        else answer = text(event.result, LONGEST_TEXT);
      } else if (event.item && typeof event.item === 'object') {
        const item = event.item;
        if (item.type === 'agent_message' && typeof item.text === 'string') {
          answer = item.text.slice(0, LONGEST_TEXT);
          this.toHub({ type: 'session-item', id, item: { role: 'assistant', text: answer, at: Date.now() } });
        } else if (item.type === 'command_execution' && typeof item.command === 'string') {
          this.toHub({ type: 'session-step', id, step: 'Running a command…' });
          this.toHub({ type: 'session-item', id, item: { role: 'tool', text: `Bash: ${item.command.split('\n')[0].slice(0, 200)}`, at: Date.now() } });
        }
      }
    });
    const finish = (code) => {
      clearTimeout(timer);
      if (this.running.get(id) !== entry) return;
      this.running.delete(id);
      this.say(`session ${agent} ended`);
      const fields = { resume: tokenId || undefined, usage };
      if (entry.stopped) return state({ ...fields, status: 'idle', lastReply: 'Stopped.' });
      if (failed || answer === null) {
        return state({ ...fields, status: 'failed', lastReply: failed || `${agent === 'codex' ? 'Codex' : 'Claude Code'} ended without an answer (exit ${code ?? 'signal'}).` });
      }
      return state({ ...fields, status: 'idle', lastReply: answer });
    };
    child.on('error', () => { failed = failed || `${agent} could not start.`; finish(null); });
    child.on('close', (code) => finish(code));
    return undefined;
  }

  halt(message) {
    const entry = this.running.get(message.id);
    if (!entry) return;
    entry.stopped = true;
    end(entry.child);
  }

  // A question of the approval tool: one JSON line, then it waits for our answer.
  asked(connection) {
    let buffer = '';
    connection.setEncoding('utf8');
    connection.on('error', () => {});
    connection.on('data', (data) => {
      if (buffer === null) return;
      buffer += data;
      if (buffer.length > 1024 * 1024) return connection.destroy();
      const at = buffer.indexOf('\n');
      if (at < 0) return undefined;
      let question;
      try { question = JSON.parse(buffer.slice(0, at)); } catch { return connection.destroy(); }
      buffer = null;
      const session = typeof question.session === 'string' && this.running.has(question.session) ? question.session : null;
      if (!session) return connection.end(`${JSON.stringify({ allow: false, why: 'No such session here.' })}\n`);
      const tool = text(question.tool, 60) || 'a tool';
      const ref = `q${this.next++}`;
      this.asking.set(ref, connection);
      connection.on('close', () => this.asking.delete(ref));
      const detail = JSON.stringify(question.input ?? {}, null, 2).slice(0, 20000);
      this.toHub({ type: 'permission', ref, session, tool, summary: summary(tool, question.input), detail });
      return undefined;
    });
  }

  // The hub can no longer answer the questions it was asked: each is a no.
  withdraw() {
    for (const connection of this.asking.values()) {
      connection.end(`${JSON.stringify({ allow: false, why: 'Zuv lost its link to the hub before an answer came.' })}\n`);
    }
    this.asking.clear();
  }

  answer(message) {
    const connection = this.asking.get(message.ref);
    if (!connection) return;
    this.asking.delete(message.ref);
    connection.end(`${JSON.stringify({ allow: message.allow === true, why: message.allow === true ? '' : 'Denied from Zuv.' })}\n`);
  }

  // The state of a session's Git tree, with the diff of each changed file.
  async changes(cwd) {
    const inside = await run('git', ['rev-parse', '--is-inside-work-tree'], cwd);
    if (inside.out.trim() !== 'true') return { git: false, cwd, files: [] };
    const status = await run('git', ['status', '--porcelain=v1', '--branch', '-z', '--untracked-files=all'], cwd);
    const records = status.out.split('\0');
    const result = { git: true, cwd, files: [] };
    const head = records.shift() || '';
    const branch = /^## (?:No commits yet on )?([^.\s]+)(?:\.\.\.(\S+))?(?: \[ahead (\d+))?/.exec(head);
    if (branch && !head.startsWith('## HEAD (no branch)')) {
      result.branch = branch[1];
      if (branch[2]) result.upstream = branch[2];
      if (branch[3]) result.ahead = Number(branch[3]);
    }
    for (let i = 0; i < records.length && result.files.length < MOST_FILES; i += 1) {
      const record = records[i];
      if (record.length < 4) continue;
      const code = record.slice(0, 2);
      const file = record.slice(3);
      if (code[0] === 'R' || code[0] === 'C') i += 1; // the old name follows
      const untracked = code === '??';
      const diff = untracked
        ? await run('git', ['diff', '--no-index', '--', '/dev/null', file], cwd)
        : await run('git', ['diff', 'HEAD', '--', file], cwd);
      const numbers = untracked
        ? await run('git', ['diff', '--no-index', '--numstat', '--', '/dev/null', file], cwd)
        : await run('git', ['diff', 'HEAD', '--numstat', '--', file], cwd);
      const [added, removed] = numbers.out.split('\t');
      result.files.push({
        path: file,
        status: untracked ? '?' : code.trim()[0] || 'M',
        added: Number(added) || 0,
        removed: Number(removed) || 0,
        binary: added === '-',
        truncated: diff.out.length > LONGEST_DIFF,
        diff: diff.out.slice(0, LONGEST_DIFF),
      });
    }
    return result;
  }

  // Folders to start a session in: those used lately, then the Git trees in the home folder.
  projects() {
    const home = process.env.HOME || '/';
    const seen = new Set();
    const list = [];
    const add = (cwd) => {
      if (seen.has(cwd) || list.length >= 50) return;
      seen.add(cwd);
      list.push({ name: path.basename(cwd) || cwd, cwd });
    };
    [...this.known.entries()].sort((a, b) => b[1] - a[1]).forEach(([cwd]) => add(cwd));
    const look = (folder, depth) => {
      let names = [];
      try { names = readdirSync(folder, { withFileTypes: true }); } catch { return; }
      for (const entry of names) {
        if (!entry.isDirectory() || entry.name.startsWith('.')) continue;
        const child = path.join(folder, entry.name);
        if (existsSync(path.join(child, '.git'))) add(child);
        else if (depth > 0) look(child, depth - 1);
      }
    };
    look(home, 1);
    return list;
  }

  // Continues a session in a terminal window on this computer.
  terminal(message) {
    const cwd = folderPath(message.cwd);
    const agent = message.agent === 'codex' ? 'codex' : 'claude';
    const resume = typeof message.resume === 'string' && /^[\w-]{1,100}$/.test(message.resume) ? message.resume : null;
    const app = TERMINALS.find(onPath);
    if (!app) return { error: 'No terminal emulator was found on this computer.' };
    const command = agent === 'codex' ? (resume ? `codex resume ${resume}` : 'codex') : (resume ? `claude --resume ${resume}` : 'claude');
    const args = app === 'gnome-terminal' ? ['--', 'sh', '-c', `${command}; exec "\${SHELL:-sh}"`]
      : ['-e', 'sh', '-c', `${command}; exec "\${SHELL:-sh}"`];
    try {
      const child = spawn(app, args, { cwd: existsSync(cwd) ? cwd : process.env.HOME, detached: true, stdio: 'ignore' });
      child.on('error', () => {});
      child.unref();
    } catch {
      return { error: `${app} could not start.` };
    }
    return { result: { app } };
  }
}
