'use strict';

const table = document.querySelector('table');
const template = document.getElementById('port');
const shown = new Map(); // port -> { element, row, began }

// Text only ever becomes text: much of it comes from the modules.
function put(parent, selector, text) {
  const element = parent.querySelector(selector);
  if (element.textContent !== text) element.textContent = text;
  return element;
}

function stateOf(row) {
  if (row.phase === 'done') return row.cause === 'none' ? 'good' : 'bad';
  if (row.phase === 'queued') return 'queued';
  return row.waiting_for ? 'waiting' : 'running';
}

function resultOf(row, state) {
  const attempt = row.attempt > 1 ? `attempt ${row.attempt}` : '';
  return { good: '✓ flashed', bad: '✗ failed', waiting: '◷ waiting' }[state] ?? attempt;
}

function noteOf(row, state) {
  if (state === 'waiting') return `Waiting: ${row.waiting_for}`;
  if (state === 'good' && row.message) return `But: ${row.message}`;
  if (state !== 'bad') return '';
  return row.message ? `${row.cause_words}: ${row.message}` : row.cause_words;
}

function clock(seconds) {
  const whole = Math.floor(seconds);
  const two = (number) => String(number).padStart(2, '0');
  const hours = Math.floor(whole / 3600);
  const minutes = Math.floor(whole / 60) % 60;
  return (hours ? `${hours}:${two(minutes)}` : `${minutes}`) + `:${two(whole % 60)}`;
}

function addPort(port) {
  const element = template.content.firstElementChild.cloneNode(true);
  const button = element.querySelector('button');
  const log = element.querySelector('.log');
  button.textContent = port;
  log.setAttribute('aria-label', `Last lines of ${port}`);
  element.querySelector('[role=progressbar]').setAttribute('aria-label', `Progress of ${port}`);
  button.addEventListener('click', () => {
    log.hidden = !log.hidden;
    button.setAttribute('aria-expanded', String(!log.hidden));
    showMore(element);
  });
  const entry = { element };
  shown.set(port, entry);
  return entry;
}

// The second line of a port is there when it has something to say.
function showMore(element) {
  const [note, log] = element.querySelectorAll('.note, .log');
  element.querySelector('.more').hidden = note.hidden && log.hidden;
}

function showRow(row) {
  const entry = shown.get(row.port) ?? addPort(row.port);
  const { element } = entry;
  const state = stateOf(row);
  const percent = Math.min(100, Math.max(0, Math.floor(row.percent)));
  entry.row = row;
  entry.began = performance.now() - row.seconds * 1000;
  element.className = state;
  put(element, '.model', row.model);
  put(element, '.phase', state === 'bad' ? '' : row.phase);
  put(element, '.percent', row.bytes_total || percent ? String(percent) : '');
  put(element, '.rate', row.kbytes_per_second > 0 ? row.kbytes_per_second.toFixed(1) : '');
  put(element, '.result', resultOf(row, state));
  put(element, '.log', row.last_lines.join('\n'));
  const note = noteOf(row, state);
  put(element, '.note', note).hidden = note === '';
  showMore(element);
  const bar = element.querySelector('[role=progressbar]');
  bar.setAttribute('aria-valuenow', String(percent));
  bar.firstElementChild.style.width = `${percent}%`;
}

function showTimes() {
  if (!live) return; // nobody tells how the runs go on
  for (const { element, row, began } of shown.values()) {
    const runs = row.phase !== 'queued' && row.phase !== 'done';
    const seconds = runs ? (performance.now() - began) / 1000 : row.seconds;
    put(element, '.time', row.phase === 'queued' ? '' : clock(seconds));
  }
}

function showChanges(changes) {
  changes.rows.forEach(showRow);
  for (const [port, { element }] of shown) {
    if (!changes.ports.includes(port)) {
      element.remove();
      shown.delete(port);
    }
  }
  let before = table.tHead;
  for (const port of changes.ports) {
    const { element } = shown.get(port);
    if (before.nextElementSibling !== element) before.after(element);
    before = element;
  }
  const states = [...shown.values()].map(({ row }) => stateOf(row));
  const running = states.filter((state) => state === 'running' || state === 'waiting').length;
  put(document, '#good', String(changes.good));
  put(document, '#bad', String(changes.bad)).parentElement.classList.toggle('some', changes.bad > 0);
  put(document, '#running', String(running));
  document.getElementById('empty').hidden = shown.size > 0;
  document.title = `${changes.good} good, ${changes.bad} bad, ${running} running – orbix_station`;
  showTimes();
}

// --- the connection ------------------------------------------------------------------------------

let live = false;

function showConnection(state, words) {
  put(document, '#connection', words).dataset.state = state;
  live = state === 'live';
}

function connect() {
  const source = new EventSource('events');
  const show = (event) => {
    showConnection('live', 'live');
    showChanges(JSON.parse(event.data));
  };
  source.addEventListener('state', show);
  source.addEventListener('changes', show);
  source.addEventListener('ended', () => {
    source.close();
    showConnection('ended', 'ended');
  });
  source.addEventListener('error', () => {
    showConnection('lost', 'connection lost, trying again …');
    // The browser tries again by itself, but not after an answer that is an error.
    if (source.readyState === EventSource.CLOSED) setTimeout(connect, 2000);
  });
}

setInterval(showTimes, 500);
connect();
