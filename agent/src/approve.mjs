// The approval tool Claude Code asks before it uses a tool in a session: a small
// MCP server on stdio (newline-delimited JSON-RPC) with one tool, "approve". Each
// call goes to the agent over its Unix socket and waits there for the person's
// answer from the hub; the answer is given back in the form Claude Code expects.
import { createInterface } from 'node:readline';
import { askSocket } from './tools.mjs';

const SOCKET = process.env.ZUV_APPROVE_SOCKET || '';
const SESSION = process.env.ZUV_SESSION || '';

function send(message) {
  process.stdout.write(`${JSON.stringify(message)}\n`);
}

function decision(allow, input, why) {
  const text = allow
    ? JSON.stringify({ behavior: 'allow', updatedInput: input })
    : JSON.stringify({ behavior: 'deny', message: why || 'Denied from Zuv.' });
  return { content: [{ type: 'text', text }] };
}

// Asks the agent; anything but a clear yes is a no.
async function ask(tool, input) {
  if (!SOCKET) return { allow: false, why: 'Zuv could not ask: no agent to ask.' };
  const { answer, failed } = await askSocket(SOCKET, JSON.stringify({ session: SESSION, tool, input }));
  if (!answer) {
    return { allow: false, why: failed === 'hung up' ? 'The request was withdrawn.' : 'Zuv could not ask: the agent is gone.' };
  }
  return { allow: answer.allow === true, why: typeof answer.why === 'string' ? answer.why : '' };
}

const input = createInterface({ input: process.stdin });
input.on('line', async (line) => {
  let message;
  try {
    message = JSON.parse(line);
  } catch {
    return;
  }
  if (!message || typeof message !== 'object' || message.id === undefined) return; // a notification
  const { id, method, params } = message;
  if (method === 'initialize') {
    send({
      jsonrpc: '2.0',
      id,
      result: {
        protocolVersion: (params && typeof params.protocolVersion === 'string' && params.protocolVersion) || '2024-11-05',
        capabilities: { tools: {} },
        serverInfo: { name: 'zuv', version: '1' },
      },
    });
  } else if (method === 'tools/list') {
    send({
      jsonrpc: '2.0',
      id,
      result: {
        tools: [{
          name: 'approve',
          description: 'Asks the person, through Zuv, whether a tool may run.',
          inputSchema: {
            type: 'object',
            properties: { tool_name: { type: 'string' }, input: { type: 'object' }, tool_use_id: { type: 'string' } },
            required: ['tool_name', 'input'],
          },
        }],
      },
    });
  } else if (method === 'tools/call') {
    const args = (params && params.arguments) || {};
    const tool = typeof args.tool_name === 'string' ? args.tool_name : 'a tool';
    const toolInput = args.input && typeof args.input === 'object' ? args.input : {};
    const answer = await ask(tool, toolInput);
    send({ jsonrpc: '2.0', id, result: decision(answer.allow, toolInput, answer.why) });
  } else if (method === 'ping') {
    send({ jsonrpc: '2.0', id, result: {} });
  } else {
    send({ jsonrpc: '2.0', id, error: { code: -32601, message: 'Method not found' } });
  }
});
input.on('close', () => process.exit(0));
