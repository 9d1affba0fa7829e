// The phone page: pairs with the code the computer shows, then does what the
// phone app does here: chats, agent sessions on the computer and their tool
// requests, the computer's clipboard and staying awake. Plain DOM, no build step;
// every text from the hub goes in as text, never as markup.
'use strict';

const state = { token: localStorage.getItem('zuv-phone-token'), conversation: null, session: null, tab: 'list', socket: null, retry: 1000 };
const $ = (id) => document.getElementById(id);

async function api(method, path, body) {
  const headers = { 'content-type': 'application/json' };
  if (state.token) headers.authorization = `Bearer ${state.token}`;
  const response = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
  let data = {};
  try { data = await response.json(); } catch { /* an empty or broken body */ }
  if (response.status === 401 && path.startsWith('/app/')) { forget(); throw new Error('Pair this phone again.'); }
  if (!response.ok) throw new Error((data.error && data.error.message) || `The hub answered ${response.status}.`);
  return data;
}

function show(error, where = 'app-error') { $(where).textContent = error ? String(error.message || error) : ''; }

function forget() {
  localStorage.removeItem('zuv-phone-token');
  state.token = null;
  if (state.socket) state.socket.close();
  start();
}

// --- Pairing
$('pair-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  show('', 'pair-error');
  try {
    const reply = await api('POST', '/phone/pair', { code: $('code').value });
    state.token = reply.token;
    localStorage.setItem('zuv-phone-token', reply.token);
    start();
  } catch (error) { show(error, 'pair-error'); }
});

// --- Minimal Markdown: headings, lists, code, tables, emphasis and code spans.
function inline(text, into) {
  const pattern = /(\*\*[^*]+\*\*|\*[^*]+\*|`[^`]+`)/g;
  let last = 0;
  for (const match of text.matchAll(pattern)) {
    into.append(text.slice(last, match.index));
    const token = match[0];
    const tag = token.startsWith('**') ? 'strong' : token.startsWith('`') ? 'code' : 'em';
    const cut = tag === 'strong' ? 2 : 1;
    const node = document.createElement(tag);
    node.textContent = token.slice(cut, -cut);
    into.append(node);
    last = match.index + token.length;
  }
  into.append(text.slice(last));
}

function markdown(text, into) {
  const lines = text.split('\n');
  for (let i = 0; i < lines.length; i += 1) {
    const line = lines[i];
    if (line.startsWith('```')) {
      const code = [];
      for (i += 1; i < lines.length && !lines[i].startsWith('```'); i += 1) code.push(lines[i]);
      const pre = document.createElement('pre');
      pre.textContent = code.join('\n');
      into.append(pre);
    } else if (line.startsWith('|')) {
      const table = document.createElement('table');
      for (; i < lines.length && lines[i].startsWith('|'); i += 1) {
        if (/^\|[\s:|-]+\|?$/.test(lines[i])) continue;
        const row = table.insertRow();
        for (const cell of lines[i].replace(/^\||\|$/g, '').split('|')) inline(cell.trim(), row.insertCell());
      }
      i -= 1;
      into.append(table);
    } else if (/^#{1,6}\s/.test(line)) {
      const heading = document.createElement('strong');
      inline(line.replace(/^#+\s*/, ''), heading);
      into.append(heading, '\n');
    } else if (line.trim() !== '') {
      const paragraph = document.createElement('span');
      inline(line, paragraph);
      into.append(paragraph, '\n');
    }
  }
}

// --- Conversations and messages
async function loadConversations() {
  const { conversations } = await api('GET', '/app/conversations');
  const list = $('conversations');
  list.replaceChildren();
  for (const c of conversations) {
    const item = document.createElement('li');
    item.dataset.id = c.id;
    if (c.unread) item.classList.add('unread');
    const title = document.createElement('div');
    title.className = 'title';
    title.textContent = c.title;
    const preview = document.createElement('div');
    preview.className = 'preview';
    preview.textContent = c.preview;
    item.append(title, preview);
    item.addEventListener('click', () => open(c.id, c.title));
    list.append(item);
  }
}

function addMessage(entry) {
  if (document.querySelector(`#messages li[data-id="${CSS.escape(entry.id)}"]`)) return;
  const item = document.createElement('li');
  item.dataset.id = entry.id;
  item.className = entry.role === 'user' ? 'user' : 'assistant';
  if (entry.role === 'user') item.textContent = entry.text;
  else markdown(entry.text, item);
  $('messages').append(item);
  item.scrollIntoView({ block: 'end' });
}

async function open(id, title) {
  state.conversation = id;
  $('title').textContent = title || 'Chat';
  $('list').hidden = true;
  $('chat').hidden = false;
  $('back').hidden = false;
  $('messages').replaceChildren();
  $('working').hidden = true;
  try {
    const { entries } = await api('GET', `/app/history?conversation=${encodeURIComponent(id)}&limit=60`);
    entries.forEach(addMessage);
    await api('POST', '/app/seen', { conversation: id });
  } catch (error) { show(error); }
}

$('back').addEventListener('click', () => {
  tab(state.tab);
  if (state.tab === 'list') loadConversations().catch(show);
});

$('new-chat').addEventListener('click', () => {
  const id = `c${crypto.randomUUID().replaceAll('-', '').slice(0, 15)}`;
  open(id, 'New Chat');
});

$('composer').addEventListener('submit', async (event) => {
  event.preventDefault();
  const text = $('text').value.trim();
  if (!text || !state.conversation) return;
  $('text').value = '';
  try {
    const { entry } = await api('POST', '/app/send', { text, conversation: state.conversation, clientId: `m${Date.now()}` });
    if (entry) addMessage(entry);
  } catch (error) {
    $('text').value = text; // nothing lost
    show(error);
  }
});
$('text').addEventListener('keydown', (event) => {
  if (event.key === 'Enter' && !event.shiftKey) { event.preventDefault(); $('composer').requestSubmit(); }
});

// --- Tool requests
async function loadRequests() {
  const { permissions } = await api('GET', '/app/cc/permissions');
  $('requests').replaceChildren();
  permissions.forEach(showRequest);
}

function showRequest(request) {
  const old = document.querySelector(`.request[data-id="${CSS.escape(request.id)}"]`);
  if (request.status !== 'pending') { if (old) old.remove(); return; }
  if (old) return;
  const card = document.createElement('div');
  card.className = 'request';
  card.dataset.id = request.id;
  const what = document.createElement('strong');
  what.textContent = `${request.tool} in ${request.project}`;
  const detail = document.createElement('code');
  detail.textContent = request.detail;
  const actions = document.createElement('div');
  actions.className = 'actions';
  for (const [label, allow] of [['Allow', true], ['Deny', false]]) {
    const button = document.createElement('button');
    button.textContent = label;
    if (!allow) button.className = 'secondary';
    button.addEventListener('click', () => api('POST', '/app/cc/permission', { id: request.id, allow })
      .then(() => card.remove()).catch(show));
    actions.append(button);
  }
  card.append(what, detail, actions);
  $('requests').append(card);
}

// --- Tabs
function tab(name) {
  for (const button of document.querySelectorAll('nav#tabs .tab')) button.classList.toggle('current', button.dataset.tab === name);
  state.tab = name;
  $('list').hidden = name !== 'list';
  $('chat').hidden = true;
  $('session').hidden = true;
  $('back').hidden = true;
  $('sessions').hidden = name !== 'sessions';
  $('clipboard').hidden = name !== 'clipboard';
  $('computer').hidden = name !== 'computer';
  $('title').textContent = { list: 'Chats', sessions: 'Sessions', clipboard: 'Clipboard', computer: 'Computer' }[name];
  state.conversation = null;
  state.session = null;
  if (name === 'sessions') { loadSessions().catch(show); loadProjects(); }
  if (name === 'clipboard') loadClips().catch(show);
  if (name === 'computer') {
    api('GET', '/app/power').then((reply) => showAwake(reply.session)).catch(show);
    loadComputers().catch(show);
  }
}
for (const button of document.querySelectorAll('nav#tabs .tab')) button.addEventListener('click', () => tab(button.dataset.tab));

// --- Agent sessions on the computer
const STATUS = { running: 'Working…', busy: 'Working…', failed: 'Failed', idle: 'Waiting for you' };
const working = (session) => session.status === 'running' || session.status === 'busy';

async function loadSessions() {
  const { sessions } = await api('GET', '/app/cc/sessions');
  const list = $('session-list');
  list.replaceChildren();
  for (const session of sessions) {
    const item = document.createElement('li');
    item.dataset.id = session.id;
    const title = document.createElement('div');
    title.className = 'title';
    title.textContent = session.title || session.project;
    const meta = document.createElement('div');
    meta.className = 'preview';
    meta.textContent = [session.project, session.deviceName, STATUS[session.status] || session.status].filter(Boolean).join(' · ');
    const reply = document.createElement('div');
    reply.className = 'preview';
    reply.textContent = session.lastReply || '';
    item.append(title, meta, reply);
    item.addEventListener('click', () => openSession(session.id));
    list.append(item);
  }
}

async function loadProjects() {
  try {
    const { result } = await api('GET', '/app/cc/projects');
    $('projects').replaceChildren(...(result || []).map((project) => {
      const option = document.createElement('option');
      option.value = project.cwd;
      option.label = project.name;
      return option;
    }));
  } catch { /* the computer is offline: the folder is typed */ }
}

async function openSession(id) {
  state.session = id;
  $('sessions').hidden = true;
  $('session').hidden = false;
  $('back').hidden = false;
  $('items').replaceChildren();
  $('session-working').hidden = true;
  await refreshSession().catch(show);
}

async function refreshSession() {
  const id = state.session;
  if (!id) return;
  const { result } = await api('GET', `/app/cc/session?id=${encodeURIComponent(id)}`);
  if (state.session !== id) return;
  const session = result.session || {};
  $('title').textContent = session.title || session.project || 'Session';
  $('session-meta').textContent = [session.cwd, session.deviceName, STATUS[session.status] || session.status].filter(Boolean).join(' · ');
  $('items').replaceChildren();
  for (const entry of result.items || []) {
    const item = document.createElement('li');
    item.className = entry.role === 'user' ? 'user' : entry.role === 'tool' ? 'tool' : 'assistant';
    if (item.className === 'assistant') markdown(entry.text, item);
    else item.textContent = entry.text;
    $('items').append(item);
  }
  $('session-stop').hidden = !working(session);
  if (!working(session)) $('session-working').hidden = true;
  const last = $('items').lastElementChild;
  if (last) last.scrollIntoView({ block: 'end' });
}

$('session-new').addEventListener('submit', async (event) => {
  event.preventDefault();
  const cwd = $('session-cwd').value.trim();
  const prompt = $('session-prompt').value.trim();
  if (!cwd || !prompt) return;
  try {
    const agent = $('session-agent').value === 'codex' ? 'codex' : 'claude';
    const { result } = await api('POST', '/app/cc/new', { cwd, prompt, agent, model: '', effort: '' });
    $('session-prompt').value = '';
    await openSession(result.id);
  } catch (error) { show(error); }
});

$('session-reply').addEventListener('submit', async (event) => {
  event.preventDefault();
  const text = $('session-text').value.trim();
  if (!text || !state.session) return;
  $('session-text').value = '';
  try {
    await api('POST', '/app/cc/reply', { id: state.session, text });
    await refreshSession();
  } catch (error) {
    $('session-text').value = text; // nothing lost
    show(error);
  }
});
$('session-stop').addEventListener('click', () => api('POST', '/app/cc/stop', { id: state.session }).catch(show));
$('session-remove').addEventListener('click', async () => {
  if (!state.session || !window.confirm('Remove this session and its transcript?')) return;
  try {
    await api('POST', '/app/cc/remove', { id: state.session });
    tab('sessions');
  } catch (error) { show(error); }
});

// --- The computer's clipboard, through its agent
async function clipboard(request) {
  const { result } = await api('POST', '/app/clipboard', request);
  return result || {};
}

async function loadClips() {
  const result = await clipboard({ op: 'list', q: $('clip-search').value, offset: 0, limit: 30 });
  const list = $('clips');
  list.replaceChildren();
  if (result.enabled === false) {
    const note = document.createElement('li');
    note.textContent = 'Clipboard history is off on the computer.';
    list.append(note);
    return;
  }
  for (const clip of result.items || []) {
    const item = document.createElement('li');
    item.dataset.id = clip.id;
    const text = document.createElement('div');
    text.className = 'clip-text';
    text.textContent = clip.text || (clip.kind === 'image' ? 'Picture' : clip.kind || 'Clip');
    const meta = document.createElement('div');
    meta.className = 'meta';
    meta.textContent = [clip.pinned ? 'Pinned' : '', clip.appName || clip.app || ''].filter(Boolean).join(' · ');
    const actions = document.createElement('div');
    actions.className = 'actions';
    for (const [label, op] of [['Use', 'use'], [clip.pinned ? 'Unpin' : 'Pin', 'pin'], ['Delete', 'delete']]) {
      const button = document.createElement('button');
      button.textContent = label;
      if (op !== 'use') button.className = 'secondary';
      button.addEventListener('click', () => clipboard({ op, clip: clip.id }).then(() => loadClips()).catch(show));
      actions.append(button);
    }
    // A tap shows the whole clip: its full text, or its picture.
    text.addEventListener('click', () => clipboard({ op: 'item', clip: clip.id }).then((full) => {
      if (typeof full.data === 'string' && /^[A-Za-z0-9+/=]+$/.test(full.data)) {
        const picture = document.createElement('img');
        picture.alt = clip.text || 'Picture';
        picture.style.maxWidth = '100%';
        picture.src = `data:${/^image\/[\w.+-]+$/.test(full.mime || '') ? full.mime : 'image/png'};base64,${full.data}`;
        text.replaceChildren(picture);
      } else if (typeof full.text === 'string') {
        text.textContent = full.text;
      }
      text.style.maxHeight = 'none';
    }).catch(show));
    item.append(text, meta, actions);
    list.append(item);
  }
}

let searchTimer = null;
$('clip-search').addEventListener('input', () => {
  clearTimeout(searchTimer);
  searchTimer = setTimeout(() => loadClips().catch(show), 300);
});

// Sending to the computer: a text goes in the request, files are uploaded first.
async function sendToComputer(body) {
  const { macs } = await api('GET', '/app/me');
  const mac = (macs || []).find((m) => m.online) || (macs || [])[0];
  if (!mac) throw new Error('No computer is paired with this account.');
  $('clip-sent').textContent = `Sending to ${mac.name}…`;
  try {
    await api('POST', '/app/mac/clipboard', { device: mac.id, from: 'Phone', ...body });
  } catch (error) {
    $('clip-sent').textContent = '';
    throw error;
  }
  return mac;
}

$('clip-add').addEventListener('submit', async (event) => {
  event.preventDefault();
  const text = $('clip-text').value;
  if (!text.trim()) return;
  try {
    const mac = await sendToComputer({ text });
    $('clip-text').value = '';
    $('clip-sent').textContent = `Text sent to ${mac.name}`;
    await loadClips();
  } catch (error) { show(error); }
});

$('clip-files').addEventListener('change', async () => {
  const chosen = [...$('clip-files').files];
  $('clip-files').value = '';
  if (chosen.length === 0) return;
  try {
    if (chosen.length > 50) throw new Error('Up to 50 files at a time.');
    const files = [];
    for (const file of chosen) {
      if (file.size > 100 * 1024 * 1024) throw new Error(`“${file.name}” is larger than 100 MB.`);
      $('clip-sent').textContent = `Uploading ${file.name}…`;
      const response = await fetch(`/app/media?name=${encodeURIComponent(file.name)}`, {
        method: 'PUT', headers: { authorization: `Bearer ${state.token}`, 'content-type': file.type || 'application/octet-stream' }, body: file,
      });
      const record = await response.json().catch(() => ({}));
      if (!response.ok) throw new Error((record.error && record.error.message) || `The upload failed (${response.status}).`);
      files.push({ key: record.key, name: record.name, mime: record.mime });
    }
    const image = chosen.length === 1 && chosen[0].type.startsWith('image/');
    const mac = await sendToComputer({ files, image });
    $('clip-sent').textContent = image ? `Picture sent to ${mac.name}` : `${files.length === 1 ? files[0].name : `${files.length} files`} sent to ${mac.name}`;
    if (image) await loadClips();
  } catch (error) {
    $('clip-sent').textContent = '';
    show(error);
  }
});

$('clip-keep').addEventListener('click', async () => {
  const text = $('clip-text').value;
  if (!text.trim()) return;
  const bytes = new TextEncoder().encode(text);
  let binary = '';
  bytes.forEach((b) => { binary += String.fromCharCode(b); });
  try {
    await clipboard({ op: 'add', file: { name: 'from-phone.txt', data: btoa(binary) }, image: false });
    $('clip-text').value = '';
    await loadClips();
  } catch (error) { show(error); }
});

// --- Staying awake
function showAwake(session) {
  if (!session || !session.active) { $('awake-state').textContent = 'Sleeps normally'; return; }
  $('awake-state').textContent = session.endsAt
    ? `Staying awake until ${new Date(session.endsAt).toLocaleTimeString([], { hour: '2-digit', minute: '2-digit' })}`
    : 'Staying awake until you stop it';
  if (session.error) $('awake-state').textContent += ` (${session.error})`;
}
for (const button of document.querySelectorAll('#awake-actions [data-minutes]')) {
  button.addEventListener('click', () => api('POST', '/app/power', { power: 'keepAwake', minutes: Number(button.dataset.minutes) }).catch(show));
}
$('allow-sleep').addEventListener('click', () => api('POST', '/app/power', { power: 'allowSleep' }).catch(show));

// --- The computer's screen, through its agent and screen helper
$('see-screen').addEventListener('click', async () => {
  $('see-screen').disabled = true;
  $('see-screen').textContent = 'Asking the computer…';
  try {
    const { result } = await api('GET', '/app/screen');
    if (!result || typeof result.data !== 'string' || !/^[A-Za-z0-9+/=]+$/.test(result.data)) throw new Error('The computer sent no picture.');
    $('screen-picture').src = `data:image/png;base64,${result.data}`;
    $('screen-picture').hidden = false;
  } catch (error) { show(error); }
  $('see-screen').disabled = false;
  $('see-screen').textContent = 'See the Screen';
});

// --- The account's computers: one can be taken off it (its pairing ends), and this phone can sign out.
async function loadComputers() {
  const { macs } = await api('GET', '/app/me');
  $('computers').replaceChildren(...(macs || []).map((mac) => {
    const item = document.createElement('li');
    const name = document.createElement('span');
    name.textContent = `${mac.name}${mac.online ? '' : ' (offline)'}`;
    const remove = document.createElement('button');
    remove.className = 'secondary';
    remove.textContent = 'Remove';
    remove.addEventListener('click', () => {
      if (!window.confirm(`Remove ${mac.name} from this account? It will have to be paired again.`)) return;
      api('DELETE', `/app/devices/${encodeURIComponent(mac.id)}`).then(loadComputers).catch(show);
    });
    item.append(name, remove);
    return item;
  }));
}
$('forget-phone').addEventListener('click', async () => {
  if (!window.confirm('Sign this phone out? You will pair it again with a code from the computer.')) return;
  try { await api('POST', '/app/phone/forget'); } catch { /* signed out here either way */ }
  forget();
});

// --- The live socket; it comes back after a hub restart.
function connect() {
  const scheme = location.protocol === 'https:' ? 'wss' : 'ws';
  const socket = new WebSocket(`${scheme}://${location.host}/app/ws?token=${encodeURIComponent(state.token)}`);
  state.socket = socket;
  socket.onopen = () => {
    state.retry = 1000;
    $('live').classList.add('live');
    $('live').title = 'Live';
    socket.send('{"kind":"ping"}');
    loadConversations().catch(show);
    loadRequests().catch(show);
  };
  socket.onmessage = (event) => {
    let frame;
    try { frame = JSON.parse(event.data); } catch { return; }
    if (frame.kind === 'message' && frame.entry) {
      if (frame.entry.conversation === state.conversation) {
        addMessage(frame.entry);
        if (frame.entry.role !== 'user') $('working').hidden = true;
      } else loadConversations().catch(show);
    } else if (frame.kind === 'step' && frame.target === 'cc') {
      if (frame.ref === state.session) {
        $('session-working').hidden = !frame.step;
        $('session-working').textContent = frame.step || '';
      }
    } else if (frame.kind === 'step' && frame.ref === state.conversation) {
      $('working').hidden = !frame.step;
      $('working').textContent = frame.step || '';
    } else if (frame.kind === 'cc' && frame.event) {
      if (frame.event.sessionId === state.session) {
        if (frame.event.type === 'remove') tab('sessions');
        else refreshSession().catch(show);
      } else if (state.tab === 'sessions' && !state.session) loadSessions().catch(show);
    } else if (frame.kind === 'awake') {
      showAwake(frame.session);
    } else if (frame.kind === 'perm' && frame.request) {
      showRequest(frame.request);
    } else if (['titles', 'deleted', 'seen'].includes(frame.kind) && !state.conversation) {
      loadConversations().catch(show);
    }
  };
  socket.onclose = (event) => {
    $('live').classList.remove('live');
    $('live').title = 'Reconnecting…';
    if (event.code === 4401) { forget(); return; }
    if (state.socket !== socket || !state.token) return;
    setTimeout(connect, state.retry);
    state.retry = Math.min(state.retry * 2, 15000);
  };
}

function start() {
  const paired = Boolean(state.token);
  $('pair').hidden = paired;
  $('app').hidden = !paired;
  // A link from the computer's QR code carries its code: zuvkel://pair/CODE, or #pair=CODE here.
  const fromLink = location.hash.match(/pair[=/]([A-Za-z0-9-]+)/);
  if (!paired && fromLink) $('code').value = fromLink[1];
  if (paired) connect();
}

start();
