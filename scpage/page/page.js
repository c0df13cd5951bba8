/* The page's script. Every text from outside becomes a text node: nothing here makes elements of text.
 * The stream tells changes; a table or a record is read whole when it is opened, after a gap in the stream,
 * and every 2 s while there is no stream. What is being typed is never overwritten. */
'use strict';

const root = document.documentElement;
const token = root.dataset.token;
const canEdit = root.dataset.mode === 'edit';
const hasStream = root.dataset.stream === 'yes';
const LOG_SIZE = 200;
const SILENCE_MS = 2200; /* scpage sends at least every second */
const PICTURE_MS = 50;
const MARK_MS = 1000;
const LONGEST_CELL = 60;
const SECRET = '<secret>'; /* as scctl shows and takes it; its JSON has null */
const FIRST_BYTES = 2048; /* of a record that are shown */

const state = {areas: [], tables: [], locks: [], diff: {}, try: null, link: {live: true}, stream: {}};
let view = {};
let heard = performance.now();
let connected = false;
let clockAhead = 0; /* seconds of this clock before scpage's */
let log = [];
let fresh = 0; /* entries of the log that are not shown yet */
let dirty = new Set(); /* records of the table in view that are not shown yet */
let isDue = false;
const marked = new Map(); /* cells that were changed, oldest first, and when */
let isPaused = false;

const $ = (id) => document.getElementById(id);

function el(tag, properties, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(properties || {})) {
    if (name.startsWith('on')) made.addEventListener(name.slice(2), value);
    else if (name in made) made[name] = value;
    else made.setAttribute(name, value);
  }
  made.append(...children.filter((child) => child !== null));
  return made;
}

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

/* Control characters, those that turn the direction, and bytes that are no UTF-8 are written as escapes. */
function shown(value) {
  if (value === null) return SECRET;
  if (Array.isArray(value)) return value.join(',');
  return String(value ?? '').replace(
    /[\u0000-\u001f\u007f-\u009f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]|\p{Surrogate}/gu, (c) => {
      const code = c.charCodeAt(0);
      if (code >= 0xdc80 && code <= 0xdcff) return `\\x${(code & 255).toString(16)}`;
      return code < 256 ? `\\x${code.toString(16).padStart(2, '0')}` : `\\u${code.toString(16).padStart(4, '0')}`;
    });
}

/* As a cell of a table has it; the record's own view has all. */
function short(value) {
  const text = shown(value);
  return text.length > LONGEST_CELL ? `${text.slice(0, LONGEST_CELL)}…` : text;
}

const typed = (value) => (value === null ? SECRET : Array.isArray(value) ? value.join(',') : String(value ?? ''));
const bdi = (value) => el('bdi', {textContent: shown(value)});
const clock = (date) => `${date.toLocaleTimeString([], {hour12: false})}`;
const say = (text) => setText($('said'), text);

async function ask(path) {
  const answer = await fetch(path, {headers: {'X-Token': token}});
  const read = await answer.json();
  if (read.fault) throw new Error(read.fault);
  return read;
}

async function act(path, body) {
  say('');
  try {
    const answer = await fetch(path, {
      method: 'POST',
      headers: {'X-Token': token, 'Content-Type': 'application/json'},
      body: JSON.stringify(body || {}),
    });
    const text = await answer.text();
    if (!answer.headers.get('Content-Type').startsWith('application/json')) throw new Error(text);
    const read = JSON.parse(text);
    if (read.fault) throw new Error(read.fault);
    return true;
  } catch (error) {
    say(shown(error.message));
    return false;
  }
}

/* ---- the stream ---- */

function connect() {
  const socket = new WebSocket(`ws://${location.host}/stream?token=${token}`);
  socket.onopen = () => {
    connected = true;
    heard = performance.now();
    refresh();
  };
  socket.onmessage = (event) => {
    heard = performance.now();
    take(JSON.parse(event.data));
  };
  socket.onclose = () => {
    connected = false;
    showLink();
    setTimeout(connect, 1000);
  };
}

function take(message) {
  clockAhead = Date.now() / 1000 - message.tick;
  const before = state.stream;
  for (const name of Object.keys(state)) if (name in message) state[name] = message[name];
  if (message.stream) {
    setText($('stream-state'), state.stream.fault ?
      `No stream: ${shown(state.stream.fault)}. Tables are read every 2 s.` :
      shown(state.stream.remark));
    if (state.stream.begun !== before.begun) refresh();
  }
  if (message.dropped) {
    note({what: 'lost', count: message.dropped, time: message.tick * 1000});
    refresh();
  }
  for (const change of message.changes || []) follow(change);
  if (message.tables) route();
  if (message.areas || message.tables || message.diff) showAreas();
  if (message.locks && view.showLocks) view.showLocks();
  if ((message.diff || message.locks) && view.kind === 'overview') view.show();
  if ('try' in message) showTry();
  if (message.ended) say(`The try has ended: ${shown(message.ended.text)}`);
  showLink();
}

function showLink() {
  const silent = performance.now() - heard;
  let text = hasStream ? 'live' : 'archives, read-only';
  let bad = true;
  if (!connected || silent > SILENCE_MS) {
    text = `stale since ${clock(new Date(Date.now() - silent))}: no connection to scpage`;
  } else if (!state.link.live) {
    text = `stale since ${clock(new Date((state.link.since + clockAhead) * 1000))}: ${shown(state.link.why)}`;
  } else {
    bad = false;
  }
  setText($('link'), text);
  $('link').className = bad ? 'bad' : 'good';
  root.classList.toggle('stale', bad);
}

/* A line of the stream. */
function follow(change) {
  note(change);
  if (change.old) return;
  if (!change.table) { // a whole area, or changes that were not seen
    refresh();
  } else if (change.table === view.table) {
    if (view.late) view.late.push(change);
    else if (view.apply) view.apply(change);
  }
}

function authors(change) {
  const names = (change.author || []).map((a) => `${shown(a.program ?? 'process')} (${a.pid})`);
  return names.length ? names.join(' or ') : 'author not known';
}

function entry(change) {
  const place = change.table ? `${change.table}/${change.id}` : change.area || '';
  const parts = Object.entries(change.fields || {}).map(([name, value]) => {
    if (!Array.isArray(value) || value.length !== 2) return name;
    if (value[0] === null && value[1] === null) return `${name} ${SECRET}`;
    const [was, is] = value.map((v) => (v === null ? '' : shown(v).slice(0, 80)));
    return change.what === 'change' ? `${name} ${was || '(empty)'} → ${is || '(empty)'}` :
      `${name}=${change.what === 'delete' ? was : is}`;
  });
  if (change.unnamed) parts.push('bytes without a name');
  if (change.closes) parts.push('values between are not known');
  const said = change.what === 'lost' ? `${change.count ?? 'some'} changes were not seen; read anew` :
    `${change.what === 'change' ? '' : `${change.what} `}${parts.join(', ')}`;
  return {time: new Date(change.time), place, table: change.table, id: change.id, said,
          by: change.what === 'lost' ? '' : authors(change), note: change.note};
}

function note(change) {
  log.push(entry(change));
  if (log.length > LOG_SIZE) log = log.slice(-LOG_SIZE);
  fresh = Math.min(fresh + 1, LOG_SIZE);
  schedule();
}

function entryItem(row) {
  const place = row.table ? el('a', {href: `#/r/${row.table}/${row.id}`, textContent: row.place}) :
    el('b', {textContent: row.place});
  const ms = String(row.time.getMilliseconds()).padStart(3, '0');
  return el('li', {}, el('span', {className: 'dim', textContent: `${clock(row.time)}.${ms} `}), place,
    ' ', bdi(row.said), el('br'), el('span', {className: 'dim'}, bdi(`${row.by}${row.note ? `: ${row.note}` : ''}`)));
}

const wanted = (row) => {
  const text = $('only').value.toLowerCase();
  return !text || `${row.place} ${row.said} ${row.by}`.toLowerCase().includes(text);
};

function showLog() {
  if (isPaused) return;
  const list = $('stream');
  for (const row of log.slice(log.length - fresh).filter(wanted)) list.prepend(entryItem(row));
  fresh = 0;
  while (list.childElementCount > LOG_SIZE) list.lastElementChild.remove();
}

/* All that came since the last picture is shown together: pictures cost more than changes do. */
function schedule() {
  if (isDue) return;
  isDue = true;
  setTimeout(() => {
    isDue = false;
    showLog();
    const records = dirty;
    dirty = new Set();
    if (view.showRecords && records.size) view.showRecords(records);
    unmark();
  }, document.hidden ? 1000 : PICTURE_MS);
}

/* A changed cell is marked for a second. */
function markCell(cell) {
  cell.classList.add('new');
  marked.delete(cell);
  marked.set(cell, performance.now());
}

function unmark() {
  for (const [cell, since] of marked) {
    if (performance.now() - since < MARK_MS) break;
    cell.classList.remove('new');
    marked.delete(cell);
  }
  if (marked.size) setTimeout(schedule, 200);
}

/* ---- areas ---- */

function facts(area) {
  const parts = [];
  if (area.capacity) parts.push(`${area.used} of ${area.capacity} used`);
  if (!area.there) parts.push('not there');
  if (state.diff.saved?.areas?.includes(area.area)) parts.push('unsaved changes');
  else if (state.diff.saved?.areas && area.there) parts.push('saved');
  parts.push(/^\d/.test(area.archive) ? `archive good, ${area.archive}` : `archive: ${shown(area.archive)}`);
  if (area.attached !== undefined) parts.push(`${area.attached} program${area.attached === 1 ? '' : 's'} attached`);
  return parts.join(', ');
}

function showAreas() {
  const items = new Map([...$('areas').children].map((item) => [item.dataset.area, item]));
  for (const area of state.areas) {
    const item = items.get(area.area) || el('li', {'data-area': area.area}, el('h3', {textContent: shown(area.area)}),
                                            el('p', {className: 'facts'}));
    if (!items.delete(area.area)) $('areas').append(item);
    if (item.childElementCount < 3 && state.tables.length) {
      item.append(el('p', {}, ...state.tables.filter((table) => table.area === area.area).map(
        (table) => el('a', {href: `#/t/${table.table}`, textContent: table.table}))));
      mark();
    }
    const line = item.children[1];
    setText(line, facts(area));
    line.classList.toggle('bad', area.archive.startsWith('bad') || !area.there);
  }
  if (state.areas.length) for (const item of items.values()) item.remove();
}

/* Marks the link to what is shown. */
function mark() {
  for (const link of document.querySelectorAll('nav a')) {
    const here = link.hash === location.hash || link.hash === `#/t/${view.table}` ||
      (link.hash === '#/' && view.kind === 'overview');
    if (here) link.setAttribute('aria-current', 'page');
    else link.removeAttribute('aria-current');
  }
}

/* ---- a try ---- */

function secondsLeft() {
  return Math.max(0, Math.ceil(state.try.until - (Date.now() / 1000 - clockAhead)));
}

let shownTry = '';

function showTry() {
  const box = $('try');
  const running = state.try;
  box.hidden = !running;
  if (!running) {
    box.replaceChildren();
    shownTry = '';
    return;
  }
  const changes = (running.changes || []).map((c) => entry(c)).map((row) => `${row.place} ${row.said}`);
  const others = (running.others || []).map((c) => entry(c)).map((row) => `changed since by others: ${row.place} ${row.said}`);
  const text = JSON.stringify([running.time, running.pid, running.phase, changes, others]);
  if (text !== shownTry) {
    shownTry = text;
    const focus = document.activeElement?.dataset?.act;
    const button = (name, path) => el('button', {type: 'button', 'data-act': path, textContent: name, onclick: () => act(path)});
    box.replaceChildren(
      el('p', {}, el('strong', {id: 'left', role: 'timer'}), ` A try of ${shown(running.user)}: `, bdi(running.command)),
      el('ul', {}, ...[...changes, ...others].slice(0, 20).map((line) => el('li', {}, bdi(line)))));
    if (canEdit) box.append(el('p', {}, button('Confirm', '/confirm'), ' ', button('Revert', '/revert')));
    if (focus) box.querySelector(`[data-act="${focus}"]`)?.focus();
  }
  showLeft();
}

function showLeft() {
  if (state.try && $('left')) setText($('left'), `Taken back in ${secondsLeft()} s.`);
}

/* ---- views ---- */

function open(next) {
  view = next;
  dirty = new Set();
  marked.clear();
  $('main').replaceChildren();
  mark();
}

function route() {
  const [, kind, table, id] = decodeURI(location.hash).split('/');
  if (!kind) overview();
  else if (!state.tables.length) open({});
  else if (!state.tables.some((row) => row.table === table)) open({});
  else if (kind === 't') tableView(table);
  else if (kind === 'r') recordView(table, Number(id));
  else if (kind === 'a' && canEdit) recordView(table, null);
}

/* Reads what is in view again. One request at a time; a call meanwhile asks for one more. */
async function refresh() {
  const mine = view;
  if (!mine.load) return;
  if (mine.late) {
    mine.again = true;
    return;
  }
  mine.late = [];
  try {
    const read = await mine.load();
    if (mine !== view) return;
    mine.fill(read);
    mine.filled = true;
  } catch (error) {
    if (mine === view) mine.fault(shown(error.message));
  } finally {
    const late = mine.late;
    mine.late = null;
    if (mine === view && mine.filled) late.forEach((change) => mine.apply(change));
    if (mine.again) {
      mine.again = false;
      setTimeout(() => mine === view && refresh(), 200);
    }
  }
}

function overview() {
  const part = (name, title) => el('section', {'data-part': name}, el('h2', {textContent: title}), el('div'));
  const lines = (found, none) => {
    if (!found) return el('p', {textContent: hasStream ? 'Being compared.' : 'Archives are compared with scctl diff.'});
    if (found.fault) return el('p', {textContent: `Cannot be compared: ${shown(found.fault)}.`});
    if (!found.lines.length) return el('p', {textContent: none});
    return el('pre', {textContent: found.lines.map(shown).join('\n') + (found.more ? `\n${found.more} more` : '')});
  };
  open({kind: 'overview', show() {
    const now = {
      saved: lines(state.diff.saved, 'Nothing: all changes are saved.'),
      factory: lines(state.diff.factory, 'Nothing.'),
      locks: state.locks.length ? el('ul', {}, ...state.locks.map((lock) => el('li', {}, lockText(lock)))) :
        el('p', {textContent: 'Nobody holds or waits for a record.'}),
    };
    for (const [name, content] of Object.entries(now)) {
      const place = $('main').querySelector(`[data-part=${name}] div`);
      if (place.textContent !== content.textContent || !place.firstChild) place.replaceChildren(content);
    }
  }});
  $('main').append(part('saved', 'Not saved: saved → live'), part('factory', 'Changed from factory'),
                   part('locks', 'Locks'));
  view.show();
}

const lockText = (lock) => `${lock.area} ${lock.record}: ${shown(lock.program)} (${lock.pid}) ${lock.state}`;
const locksOf = (table, id) => state.locks.filter((lock) => lock.record === `${table}/${id}`).map(
  (lock) => `${shown(lock.program)} (${lock.pid}) ${lock.state}`).join(', ');

function heading(table, text) {
  const row = state.tables.find((known) => known.table === table);
  return el('h2', {}, text, el('span', {className: 'dim', textContent: ` of ${row.area}`}));
}

function tableView(table) {
  const rows = new Map(); /* id: record, row, cells */
  const search = el('input', {type: 'search', autocomplete: 'off', oninput: () => rows.forEach(choose)});
  const count = el('span', {className: 'dim'});
  const head = el('tr');
  const body = el('tbody');
  const place = el('div', {className: 'wide', role: 'region', tabIndex: 0, 'aria-label': `Records of ${table}`},
    el('table', {className: 'records'}, el('thead', {}, head), body));
  const coming = new Map(); /* records as the stream has them, to be shown with the next picture */
  let names = [];
  let opaque = new Set();

  const textOf = (record) => [record.id, ...names.map((name) => shown(record[name]))].join(' ').toLowerCase();
  function choose(row) {
    row.tr.hidden = search.value !== '' && !textOf(row.record).includes(search.value.toLowerCase());
  }
  function showCount() {
    const all = state.tables.find((row) => row.table === table).records;
    setText(count, `${rows.size} of ${all} records`);
  }
  function put(record, isNew) {
    let row = rows.get(record.id);
    if (!row) {
      row = {cells: names.map(() => el('td', {}, el('bdi'))), lock: el('span', {className: 'bad'})};
      row.tr = el('tr', {}, el('th', {scope: 'row'}, el('a', {href: `#/r/${table}/${record.id}`, textContent: String(record.id),
        'aria-label': `Record ${record.id}`}), ' ', row.lock), ...row.cells);
      const after = [...rows.entries()].filter(([id]) => id > record.id).sort((a, b) => a[0] - b[0])[0];
      body.insertBefore(row.tr, after ? after[1].tr : null);
      rows.set(record.id, row);
    }
    row.record = record;
    names.forEach((name, n) => {
      const cell = row.cells[n].firstChild;
      const text = short(record[name]);
      if (cell.textContent === text) return;
      cell.textContent = text;
      if (!isNew) markCell(row.cells[n]);
    });
    choose(row);
  }
  function drop(id) {
    rows.get(id)?.tr.remove();
    rows.delete(id);
  }

  open({
    kind: 'table', table,
    load: () => ask(`/table?name=${table}`),
    fill(read) {
      if (!names.length) {
        names = read.fields.map((field) => field.field);
        opaque = new Set(read.fields.filter((field) => field.kind === 'bytes').map((field) => field.field));
        head.append(el('th', {scope: 'col', textContent: 'id'}),
                    ...names.map((name) => el('th', {scope: 'col', textContent: name})));
      }
      coming.clear();
      const there = new Set(read.records.map((record) => record.id));
      for (const id of [...rows.keys()]) if (!there.has(id)) drop(id);
      const first = rows.size === 0;
      for (const record of read.records) put(record, first);
      showCount();
      view.showLocks();
    },
    fault: (text) => say(text),
    apply(change) {
      const known = coming.has(change.id) ? coming.get(change.id) : rows.get(change.id)?.record;
      const record = {...known, id: change.id};
      let isWhole = change.what !== 'add' && !change.unnamed;
      for (const [name, value] of Object.entries(change.fields || {})) {
        if (!Array.isArray(value) || value.length !== 2 || opaque.has(name)) continue;
        if (value[1] !== null || change.what === 'delete') record[name] = value[1];
        else isWhole = false;
      }
      coming.set(change.id, change.what === 'delete' ? null : record);
      dirty.add(change.id);
      schedule();
      /* Fields that are zero, and bytes without a name, are not in the line. A null is a secret, or a member
       * that the record no longer has. */
      if (!isWhole) refresh();
    },
    showRecords(ids) {
      for (const id of ids) {
        if (!coming.has(id)) continue;
        const record = coming.get(id);
        if (record) put(record);
        else drop(id);
        coming.delete(id);
      }
      showCount();
    },
    showLocks() {
      rows.forEach((row, id) => setText(row.lock, locksOf(table, id)));
    },
  });
  const tools = el('p', {className: 'tools'}, el('label', {}, 'Search ', search), count);
  if (canEdit) tools.append(el('a', {href: `#/a/${table}`, textContent: 'Add a record'}));
  $('main').append(heading(table, table), tools, place);
  refresh();
}

/* A record, or with an id of null the form for a new one. */
function recordView(table, id) {
  const name = id === null ? `New record of ${table}` : `${table}/${id}`;
  const lock = el('p', {className: 'bad'});
  const body = el('tbody');
  const bytes = el('div', {role: 'region', 'aria-label': 'Bytes'});
  const form = el('form', {onsubmit: send},
    el('div', {className: 'wide', role: 'region', tabIndex: 0, 'aria-label': 'Fields'},
      el('table', {}, el('thead', {}, el('tr', {}, ...['field', 'value', 'bytes'].map(
        (text) => el('th', {scope: 'col', textContent: text})))), body)));
  const rows = new Map(); /* field: row, value, input, note, base */
  const seconds = el('input', {type: 'number', min: 1, max: 86400, value: 90});
  const why = el('input', {type: 'text', maxLength: 100, autocomplete: 'off'});
  const newId = el('input', {type: 'number', min: 1, max: state.tables.find((row) => row.table === table).records});

  const isEditing = (row) => row.input && (row.input.value !== row.base || document.activeElement === row.input);
  function adopt(row, value) {
    row.live = value;
    if (!row.input) {
      setText(row.value, shown(value));
    } else if (isEditing(row)) {
      setText(row.note, typed(value) === row.base ? '' : ` now: ${shown(value)}`);
    } else {
      row.base = row.input.value = typed(value);
      row.base = row.input.value; /* a browser may drop line ends */
      setText(row.note, '');
    }
  }
  function light(field, on) {
    for (const one of form.parentNode.querySelectorAll('[data-field]')) {
      if (one.dataset.field === field) one.classList.toggle('on', on);
    }
  }
  function makeRow(field, number) {
    const row = {note: el('span', {className: 'bad'}), base: ''};
    const cell = el('td');
    if (canEdit && field.bytes <= 1000 && !field.shown_only) {
      row.input = el('input', {type: 'text', 'aria-label': field.field, autocomplete: 'off', spellcheck: false,
        onblur: () => !isEditing(row) && row.live !== undefined && adopt(row, row.live)});
      cell.append(row.input, row.note);
    } else {
      row.value = bdi('');
      cell.append(row.value);
    }
    rows.set(field.field, row);
    const on = () => light(field.field, true), off = () => light(field.field, false);
    row.tr = el('tr', {'data-field': field.field, onmouseenter: on, onmouseleave: off, onfocusin: on, onfocusout: off},
      el('th', {scope: 'row', className: `t${number % 6}`}, field.field,
        el('span', {className: 'dim', textContent: ` ${field.kind}`})),
      cell, el('td', {className: 'mono', textContent: `${field.at}–${field.at + field.bytes - 1}`}));
    body.append(row.tr);
  }
  function showBytes(read) {
    const order = new Map(read.fields.map((field, n) => [field.field, n % 6]));
    let left = FIRST_BYTES;
    const made = read.parts.map((part) => {
      const hex = read.bytes.slice(part.at * 2, (part.at + part.size) * 2);
      const used = hex.replace(/(00)+$/, '').length / 2;
      const first = Math.max(0, Math.min(Math.ceil(used), left));
      left -= first;
      const rest = used > first ? ` … ${used - first} more` : '';
      const zeros = part.size - Math.ceil(used);
      return el('div', {className: `part ${part.field ? `t${order.get(part.field)}` : ''}`, 'data-field': part.field || ''},
        el('b', {textContent: `${part.at} ${part.field || part.name} `}),
        el('code', {textContent: (hex.slice(0, first * 2).match(/../g) || []).join(' ') + rest + (zeros && used ? ' + ' : '') + (zeros ? `${zeros} × 00` : '')}));
    });
    const text = made.map((one) => one.textContent).join();
    if (text !== bytes.lastText) bytes.replaceChildren(...made);
    bytes.lastText = text;
  }
  async function send(event) {
    event.preventDefault();
    const fields = {};
    for (const [field, row] of rows) if (row.input && row.input.value !== row.base) fields[field] = row.input.value;
    const edit = {do: id === null ? 'add' : 'set', table, fields, seconds: Number(seconds.value), note: why.value};
    if (id !== null) edit.id = id;
    else if (newId.value) edit.id = Number(newId.value);
    if (!await act('/try', edit)) return;
    if (id === null) {
      location.hash = `#/t/${table}`;
      return;
    }
    for (const field of Object.keys(fields)) rows.get(field).base = fields[field];
    refresh();
  }
  const remove = () => act('/try', {do: 'del', table, id, seconds: Number(seconds.value), note: why.value});
  function discard() {
    for (const row of rows.values()) {
      if (!row.input) continue;
      row.input.value = row.base = typed(row.live);
      setText(row.note, '');
    }
  }

  open({
    kind: 'record', table,
    load: () => (id === null ? ask(`/table?name=${table}`) : ask(`/record?table=${table}&id=${id}`)),
    fill(read) {
      /* A record may have other members after a change. */
      read.fields.forEach((field, n) => rows.has(field.field) || makeRow(field, n));
      if (id === null) return;
      for (const [field, row] of rows) {
        if (field in read.values) continue;
        row.tr.remove();
        rows.delete(field);
      }
      for (const [field, row] of rows) adopt(row, read.values[field]);
      showBytes(read);
      setText(gone, '');
    },
    fault: (text) => setText(gone, text),
    apply(change) {
      if (change.id === id) refresh();
    },
    showLocks() {
      setText(lock, locksOf(table, id));
    },
  });
  const gone = el('p', {className: 'bad', role: 'status'});
  if (canEdit) {
    form.append(el('p', {},
      id === null ? el('label', {}, 'Id, or the first free ', newId) : '',
      el('label', {}, 'Seconds until it is taken back ', seconds),
      el('label', {}, 'Why (for the log) ', why),
      el('button', {textContent: id === null ? 'Try to add' : 'Try the change'}),
      el('button', {type: 'button', textContent: 'Discard', onclick: discard}),
      id === null ? '' : el('button', {type: 'button', textContent: 'Try to delete', onclick: remove})));
  }
  $('main').append(heading(table, name), el('p', {}, el('a', {href: `#/t/${table}`, textContent: `All of ${table}`})),
                   gone, lock, el('div', {id: 'record'}, form, bytes));
  view.showLocks();
  refresh();
}

/* ---- start ---- */

$('only').addEventListener('input', () => {
  $('stream').replaceChildren();
  fresh = log.length;
  schedule();
});
$('pause').addEventListener('click', () => {
  isPaused = !isPaused;
  $('pause').setAttribute('aria-pressed', String(isPaused));
  schedule();
});
addEventListener('hashchange', () => {
  say('');
  route();
  $('main').focus({preventScroll: true});
});
if (token) {
  overview();
  if (!hasStream) setText($('stream-state'), 'Archives have no stream.');
  setInterval(() => {
    showLink();
    showLeft();
  }, 250);
  setInterval(() => (!hasStream || state.stream.fault) && !document.hidden && connected && refresh(), 2000);
  connect();
}
