// The live view of the memory: loads /live/keys.json, then applies the rows
// pushed on /live/events (Server-Sent Events). Names and values come from
// clients of the broker: they enter the page only as text (textContent).

const KIND_WORDS = { data: 'data', event: 'event', microEvent: 'micro-event', unknown: 'unknown', shmData: 'shm data' };
const FLASHING_KINDS = new Set(['event', 'microEvent']);

const tbody = document.querySelector('#keys tbody');
const filterBox = document.getElementById('filter');
const rows = new Map(); // name -> { row, tr }
let names = []; // sorted, the order of tbody
let pendingRows = null; // rows pushed while the table loads, applied after it
let matches = () => true;

function setStatus(text, kind) {
  const status = document.getElementById('status');
  status.textContent = text;
  status.className = 'status ' + kind;
}

// A filter is a substring of the name, or, with a '*', a glob over the whole
// name; both ignore case.
function makeFilter(text) {
  const wanted = text.trim().toLowerCase();
  if (wanted === '') return () => true;
  if (!wanted.includes('*')) return (name) => name.toLowerCase().includes(wanted);
  const pattern = wanted.split('*').map((part) => part.replace(/[.+?^${}()|[\]\\]/g, '\\$&')).join('.*');
  const glob = new RegExp('^' + pattern + '$');
  return (name) => glob.test(name.toLowerCase());
}

function formatTime(sec, usec) {
  if (!sec && !usec) return 'never';
  const date = new Date(sec * 1000 + Math.floor(usec / 1000));
  return date.toLocaleString(undefined, {
    year: 'numeric', month: 'short', day: 'numeric',
    hour: '2-digit', minute: '2-digit', second: '2-digit', fractionalSecondDigits: 3,
  });
}

function cell(tr, text, className) {
  const td = document.createElement('td');
  td.textContent = text;
  if (className) td.className = className;
  tr.appendChild(td);
  return td;
}

function fillRow(tr, row) {
  tr.replaceChildren();
  cell(tr, row.name, 'name');
  cell(tr, KIND_WORDS[row.kind] ?? String(row.kind ?? ''), 'kind');
  cell(tr, row.type ?? '', 'type');
  const value = cell(tr, row.value ?? '', 'value');
  if (row.note) {
    const note = document.createElement('span');
    note.className = 'note';
    note.textContent = row.note;
    value.appendChild(note);
  }
  const time = cell(tr, formatTime(row.sec, row.usec), 'time');
  if (row.sec) time.title = new Date(row.sec * 1000 + Math.floor(row.usec / 1000)).toISOString();
  cell(tr, row.description ?? '', 'description');
  cell(tr, (row.subscribers ?? []).join(' '), 'subscribers');
}

// Where name goes in the sorted list (code-unit order, as the server sorts ASCII).
function position(name) {
  let low = 0;
  let high = names.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (names[middle] < name) low = middle + 1;
    else high = middle;
  }
  return low;
}

function flash(tr) {
  tr.classList.remove('flash');
  void tr.offsetWidth; // restarts the animation
  tr.classList.add('flash');
}

function applyRow(row) {
  const known = rows.get(row.name);
  if (row.removed) {
    if (!known) return;
    known.tr.remove();
    rows.delete(row.name);
    names.splice(position(row.name), 1);
  } else if (known) {
    known.row = row;
    fillRow(known.tr, row);
    if (FLASHING_KINDS.has(row.kind)) flash(known.tr);
  } else {
    const tr = document.createElement('tr');
    fillRow(tr, row);
    tr.hidden = !matches(row.name);
    const at = position(row.name);
    tbody.insertBefore(tr, tbody.children[at] ?? null);
    names.splice(at, 0, row.name);
    rows.set(row.name, { row, tr });
    if (FLASHING_KINDS.has(row.kind)) flash(tr);
  }
  showCounts();
}

function showTable(doc) {
  document.getElementById('title').textContent = doc.module + ': live view';
  document.title = doc.module + ': live view';
  rows.clear();
  names = [];
  const fresh = [];
  for (const row of doc.keys) {
    const tr = document.createElement('tr');
    fillRow(tr, row);
    tr.hidden = !matches(row.name);
    rows.set(row.name, { row, tr });
    names.push(row.name);
    fresh.push(tr);
  }
  tbody.replaceChildren(...fresh);
  showDropped(doc.droppedNotifications ?? {});
  showCounts();
}

function showCounts() {
  const counts = new Map();
  for (const { row } of rows.values()) counts.set(row.kind, (counts.get(row.kind) ?? 0) + 1);
  const body = document.querySelector('#counts tbody');
  body.replaceChildren();
  for (const kind of Object.keys(KIND_WORDS)) {
    if (!counts.has(kind)) continue;
    const tr = document.createElement('tr');
    cell(tr, KIND_WORDS[kind]);
    cell(tr, String(counts.get(kind)));
    body.appendChild(tr);
  }
  const tr = document.createElement('tr');
  cell(tr, 'all');
  cell(tr, String(rows.size));
  body.appendChild(tr);
  let shown = 0;
  for (const { tr: row } of rows.values()) if (!row.hidden) shown++;
  document.getElementById('shown').textContent = `${shown} of ${rows.size} keys shown`;
}

function showDropped(dropped) {
  const body = document.querySelector('#dropped tbody');
  body.replaceChildren();
  const entries = Object.entries(dropped);
  if (entries.length === 0) {
    const tr = document.createElement('tr');
    cell(tr, 'none');
    cell(tr, '0');
    body.appendChild(tr);
  }
  for (const [module, count] of entries) {
    const tr = document.createElement('tr');
    cell(tr, module);
    cell(tr, String(count));
    body.appendChild(tr);
  }
}

async function loadTable() {
  pendingRows = [];
  try {
    const answer = await fetch('/live/keys.json', { cache: 'no-store' });
    if (!answer.ok) throw new Error(`HTTP ${answer.status}: ${await answer.text()}`);
    showTable(await answer.json());
  } catch (error) {
    setStatus(`cannot load the table: ${error.message}`, 'bad');
  }
  // Rows pushed meanwhile are newer than or as new as the table.
  const queued = pendingRows;
  pendingRows = null;
  for (const row of queued) applyRow(row);
}

function connect() {
  const source = new EventSource('/live/events');
  source.onopen = () => setStatus('live', 'ok');
  source.onerror = () => {
    if (source.readyState === EventSource.CLOSED) {
      setStatus('no live updates: the broker refused the stream (too many live views open?); reload to retry', 'bad');
    } else {
      setStatus('reconnecting', 'bad');
    }
  };
  // Sent first on each (re)connection: changes from then on are kept for us.
  source.addEventListener('hello', loadTable);
  // Changes came faster than we took them: the whole table again.
  source.addEventListener('resync', loadTable);
  source.addEventListener('row', (message) => {
    const row = JSON.parse(message.data);
    if (pendingRows) pendingRows.push(row);
    else applyRow(row);
  });
  source.addEventListener('dropped', (message) => showDropped(JSON.parse(message.data)));
}

filterBox.addEventListener('input', () => {
  matches = makeFilter(filterBox.value);
  for (const [name, { tr }] of rows) tr.hidden = !matches(name);
  showCounts();
});

connect();
