// The monitor's page: takes the server's updates (Server-Sent Events, a few per second), keeps
// the table, the trace and each signal's history, and draws them. No build step, no internet:
// Chart.js comes from the monitor's host.
'use strict';

const token = new URLSearchParams(location.search).get('token');
const withToken = (path) => (token ? `${path}?token=${encodeURIComponent(token)}` : path);
const $ = (id) => document.getElementById(id);

const state = {
  channels: [], rows: new Map(), dirty: new Set(), trace: [], paused: false, view: 'table',
  updates: 0, lost: 0, history: new Map(), plotted: [], chart: null, info: null,
};
window.monitorState = state;  // for people poking in the console, and the page test

const kTraceRows = 500;
// Per signal at most this many points; beyond it the older half is merged pairwise (min of the
// minima, max of the maxima), so a long session keeps its whole span at a coarser step while
// the newest minutes keep the server's full update rate (10 minutes at 10 updates/s is 6000).
const kHistoryPoints = 8000;

function rowKey(r) { return `${r.ch}:${r.ext ? 'x' : 's'}:${r.id}`; }
function channelName(ch) { return (state.channels[ch] || {}).name || `ch${ch}`; }
function flagsText(r) {
  return [r.ext && 'EXT', r.fd && 'FD', r.brs && 'BRS', r.rtr && 'RTR'].filter(Boolean).join(' ');
}
function fixed(v, digits) { return v === null || v === undefined ? '' : v.toFixed(digits); }

function addPoints(points) {
  for (const [name, p] of Object.entries(points)) {
    let h = state.history.get(name);
    if (!h) state.history.set(name, (h = { t: [], min: [], max: [], last: [] }));
    h.t.push(p[0] / 1e6); h.min.push(p[1]); h.max.push(p[2]); h.last.push(p[3]);
    if (h.t.length > kHistoryPoints) decimate(h);
  }
}

function decimate(h) {
  const half = Math.floor(h.t.length / 2) & ~1;
  const merged = { t: [], min: [], max: [], last: [] };
  for (let i = 0; i < half; i += 2) {
    merged.t.push(h.t[i]);
    merged.min.push(Math.min(h.min[i], h.min[i + 1]));
    merged.max.push(Math.max(h.max[i], h.max[i + 1]));
    merged.last.push(h.last[i + 1]);
  }
  for (const k of ['t', 'min', 'max', 'last']) h[k] = merged[k].concat(h[k].slice(half));
}

function onUpdate(message) {
  const { dropped, update } = JSON.parse(message.data);
  state.updates++;
  if (dropped !== state.lost) {
    state.lost = dropped;
    $('lost').hidden = false;
    $('lost').textContent = `${dropped} updates lost (page too slow)`;
  }
  state.channels = update.channels;
  if (update.full) { state.rows.clear(); $('rows').textContent = ''; }
  for (const r of update.rows) { state.rows.set(rowKey(r), r); state.dirty.add(rowKey(r)); }
  if (update.replay) {
    if (update.replay.seeks !== state.seeks) afterSeek(update.replay);
    showReplay(update.replay);
  }
  addPoints(update.points);
  if (update.families) addFamilies(update.families);
  for (const note of update.notes) showNote(note);
  if (!state.paused) {
    for (const f of update.trace) state.trace.push(f);
    if (state.trace.length > kTraceRows) state.trace.splice(0, state.trace.length - kTraceRows);
    state.traceSkipped = (state.traceSkipped || 0) + update.trace_skipped;
  }
  scheduleDraw();
}

const shownNotes = new Set();
function showNote(text) {
  if (shownNotes.has(text)) return;
  shownNotes.add(text);
  const div = document.createElement('div');
  div.textContent = text;
  $('notes').appendChild(div);
}

let drawPending = false;
function scheduleDraw() {
  if (drawPending) return;
  drawPending = true;
  requestAnimationFrame(() => { drawPending = false; draw(); });
}

function draw() {
  drawHealth();
  if (state.paused) return;
  if (state.families.channels.length) drawFamilies();
  if (state.view === 'table') drawTable(); else drawTrace();
}

function drawHealth() {
  const box = $('health');
  box.textContent = '';
  state.channels.forEach((c) => {
    // The library also keeps every frame in a queue for its own diagnostic calls; the monitor
    // never reads that one, so it fills and drops without any frame missing here.
    const hostLost = c.app_dropped + c.fetch_dropped;
    const div = document.createElement('div');
    div.className = 'channel';
    div.dataset.channel = c.name;
    div.innerHTML = `<div><strong></strong> @ ${c.bitrate} bit/s</div>
      <div class="load">${c.load.toFixed(1)} %</div>
      <div>${Math.round(c.fps)} frames/s, ${c.frames} frames</div>
      <div class="state"></div><div class="losses"></div><div class="poller"></div>`;
    div.querySelector('strong').textContent = c.name;
    div.querySelector('.state').textContent = c.live
      ? `${c.state}, TEC ${c.tec}, REC ${c.rec}` : 'replayed log';
    const losses = div.querySelector('.losses');
    losses.textContent = `host queues lost ${hostLost}` +
      (c.reconnects ? `, adapter reconnected ${c.reconnects}×` : '');
    if (hostLost || c.reconnects) losses.className = 'losses loss';
    const poller = div.querySelector('.poller');
    if (c.live) {
      poller.textContent = c.poller ? 'poller running' : `poller stopped (${c.poller_stop})`;
      if (!c.poller) poller.className = 'poller loss';
    }
    if (c.state === 'bus off' || c.state === 'error passive') div.querySelector('.state').className = 'state loss';
    box.appendChild(div);
  });
}

function matchesFilter(r) {
  const f = $('filter').value.trim().toLowerCase();
  if (!f) return true;
  return r.id.toLowerCase().includes(f.replace(/^0x/, '')) || (r.msg || '').toLowerCase().includes(f) ||
    (r.signals || []).some((s) => s.name.toLowerCase().includes(f));
}

function dataCells(td, r) {
  td.textContent = '';
  for (let i = 0; i < r.data.length / 2; i++) {
    const span = document.createElement('span');
    span.className = r.changed[i] ? 'byte changed' : 'byte';
    span.textContent = r.data.substr(i * 2, 2);
    td.appendChild(span);
  }
}

function signalCells(td, r) {
  td.textContent = '';
  if (r.decode_error !== undefined) { td.textContent = `(not decoded: ${r.decode_error})`; return; }
  for (const s of r.signals || []) {
    const span = document.createElement('span');
    const name = `${channelName(r.ch)}/${r.msg}.${s.name}`;
    span.className = state.plotted.includes(name) ? 'signal plotted' : 'signal';
    span.dataset.signal = name;
    span.textContent = `${s.name}=${s.value === null ? 'NaN' : +s.value.toPrecision(10)}${s.unit ? ' ' + s.unit : ''}`;
    if (s.choice !== undefined) {
      const choice = document.createElement('span');
      choice.className = 'choice';
      choice.textContent = ` "${s.choice}"`;
      span.appendChild(choice);
    }
    span.onclick = () => togglePlot(name);
    td.appendChild(span);
  }
}

function drawTable() {
  const body = $('rows');
  for (const key of state.dirty) {
    const r = state.rows.get(key);
    let tr = body.querySelector(`tr[data-key="${key}"]`);
    if (!tr) {
      tr = document.createElement('tr');
      tr.dataset.key = key;
      tr.dataset.id = r.id;
      for (let i = 0; i < 10; i++) tr.appendChild(document.createElement('td'));
      const after = [...body.children].find((other) => other.dataset.key > key);
      body.insertBefore(tr, after || null);
    }
    const c = tr.children;
    c[0].textContent = channelName(r.ch);
    c[1].textContent = r.id;
    c[2].textContent = r.msg || '';
    c[3].textContent = r.count; c[3].className = 'num count';
    c[4].textContent = fixed(r.period_ms, 2); c[4].className = 'num';
    c[5].textContent = fixed(r.jitter_ms, 3); c[5].className = 'num';
    c[6].textContent = flagsText(r);
    c[7].textContent = r.len;
    dataCells(c[8], r);
    signalCells(c[9], r);
    tr.hidden = !matchesFilter(r);
  }
  state.dirty.clear();
}

function drawTrace() {
  const body = $('trace-rows');
  const rows = state.trace.filter((f) => matchesFilter({ id: f.id }));
  body.textContent = '';
  for (const f of rows.slice(-200).reverse()) {
    const tr = document.createElement('tr');
    for (const text of [(f.t / 1e6).toFixed(6), channelName(f.ch), f.id, flagsText(f), f.len,
      f.data.replace(/(..)/g, '$1 ').trim()]) {
      const td = document.createElement('td');
      td.textContent = text;
      tr.appendChild(td);
    }
    body.appendChild(tr);
  }
  $('trace-skipped').textContent = state.traceSkipped
    ? `${state.traceSkipped} frames were not listed (the trace shows the newest of each update)` : '';
}

// ----- plots -----------------------------------------------------------------------------------
const kColours = ['#1f77b4', '#d62728', '#2ca02c', '#9467bd', '#ff7f0e', '#17becf', '#8c564b'];

function togglePlot(name) {
  const at = state.plotted.indexOf(name);
  if (at >= 0) state.plotted.splice(at, 1); else state.plotted.push(name);
  for (const r of state.rows.values()) state.dirty.add(rowKey(r));
  drawPlottedList();
  drawChart();
  scheduleDraw();
}

function drawPlottedList() {
  const box = $('plotted');
  box.textContent = '';
  state.plotted.forEach((name, i) => {
    const span = document.createElement('span');
    span.style.color = kColours[i % kColours.length];
    span.textContent = `${name} ✕`;
    span.title = 'remove from the plot';
    span.onclick = () => togglePlot(name);
    box.appendChild(span);
  });
}

function chartAvailable() { return typeof Chart !== 'undefined' && !window.chartMissing; }

function seriesOf(name, from, to) {
  const h = state.history.get(name);
  const points = [];
  if (!h) return points;
  for (let i = 0; i < h.t.length; i++) {
    if (h.t[i] < from || h.t[i] > to) continue;
    points.push({ x: h.t[i], y: h.min[i] });
    if (h.max[i] !== h.min[i]) points.push({ x: h.t[i], y: h.max[i] });
  }
  return points;
}

function drawChart() {
  if (!chartAvailable()) { $('chart-missing').hidden = false; return; }
  let newest = 0, oldest = Infinity;
  for (const name of state.plotted) {
    const h = state.history.get(name);
    if (h && h.t.length) { newest = Math.max(newest, h.t[h.t.length - 1]); oldest = Math.min(oldest, h.t[0]); }
  }
  if (oldest === Infinity) oldest = newest;
  const span = +$('range').value || (newest - oldest);
  // the pan slider moves the window's end back through the history
  const end = oldest + span + (newest - oldest - span) * (+$('pan').value / 100);
  const from = Math.max(oldest, end - span), to = Math.max(end, from);
  const datasets = state.plotted.map((name, i) => ({
    label: name, data: seriesOf(name, from, to).map((p) => ({ x: p.x - newest, y: p.y })),
    borderColor: kColours[i % kColours.length], pointRadius: 0, borderWidth: 1.5,
  }));
  if (!state.chart) {
    state.chart = new Chart($('chart'), {
      type: 'line', data: { datasets },
      options: {
        animation: false, parsing: false, normalized: true, maintainAspectRatio: false,
        scales: { x: { type: 'linear', title: { display: true, text: 's (0 = newest)' } } },
        plugins: { legend: { display: true } },
      },
    });
  } else {
    state.chart.data.datasets = datasets;
    state.chart.update('none');
  }
}

// ----- replay slider ---------------------------------------------------------------------------
// Every update of a replay says where it stands; the slider spans the log's first to last time
// stamp and shows seconds from the first. While the slider is held (and until the server has
// gone where it was let go) the updates do not move it.
function showReplay(r) {
  state.replay = r;
  $('replay').hidden = false;
  const span = (r.last - r.first) / 1e6, at = (r.at - r.first) / 1e6;
  const slider = $('replay-slider');
  slider.max = span.toFixed(6);
  if (!state.sliderHeld) slider.value = at;
  const shown = state.sliderHeld ? +slider.value : at;
  const mode = r.ended ? ' end' : r.paused ? ' paused' : r.fast ? ' fast' : '';
  $('replay-time').textContent = `${shown.toFixed(3)} s of ${span.toFixed(3)} s${mode}`;
  $('replay-play').textContent = r.paused || r.ended ? '▶ Play' : '❚❚ Pause';
}

// The server fed the frames up to the new time and sends the whole table with this update: the
// trace starts again, and the plots keep only what they had drawn before that time (a span
// jumped over forwards stays empty).
function afterSeek(r) {
  state.seeks = r.seeks;
  const cut = r.seek / 1e6;
  for (const h of state.history.values()) {
    let keep = h.t.length;
    while (keep > 0 && h.t[keep - 1] > cut) keep--;
    for (const k of ['t', 'min', 'max', 'last']) h[k].length = keep;
  }
  state.trace = []; state.traceSkipped = 0;
  if (state.plotted.length) drawChart();
}

function seekReplay(seconds, play) {
  const r = state.replay;
  const body = { seek: Math.min(Math.max(0, seconds), (r.last - r.first) / 1e6).toFixed(6) };
  if (play !== undefined) body.play = play ? '1' : '0';
  state.sliderHeld = true;
  $('replay-slider').value = body.seek;
  return post('replay', body).then((answer) => { state.sliderHeld = false; showReplay(answer); },
    () => { state.sliderHeld = false; });
}

function togglePlay() {
  const r = state.replay;
  if (!r) return;
  if (r.ended) seekReplay(0, true);  // as a video player does: play again from the start
  else post('replay', { play: r.paused ? '1' : '0' }).then(showReplay);
}

// Space plays or pauses; ← → move 1 s (10 s with Shift), Home and End go to the ends. Not while
// typing into a field.
function replayKey(e) {
  const r = state.replay;
  if (!r || e.ctrlKey || e.altKey || e.metaKey) return;
  if (e.target.matches('input:not([type=range]), select, textarea')) return;
  if (e.key === ' ' && e.target.tagName === 'BUTTON') return;  // the button's own click
  const at = (r.at - r.first) / 1e6, step = e.shiftKey ? 10 : 1;
  const to = { ArrowLeft: at - step, ArrowRight: at + step, Home: 0, End: Infinity }[e.key];
  if (e.key === ' ') togglePlay();
  else if (to !== undefined) seekReplay(to);
  else return;
  e.preventDefault();
}

function setupReplay() {
  const slider = $('replay-slider');
  slider.oninput = () => { state.sliderHeld = true; if (state.replay) showReplay(state.replay); };
  slider.onchange = () => seekReplay(+slider.value);
  $('replay-play').onclick = togglePlay;
  document.addEventListener('keydown', replayKey);
}

// ----- controls --------------------------------------------------------------------------------
function post(path, body) {
  return fetch(withToken(path), {
    method: 'POST', body: new URLSearchParams(body),
    headers: { 'Content-Type': 'application/x-www-form-urlencoded' },
  }).then((r) => r.json());
}

function setView(view) {
  state.view = view;
  $('table-view').hidden = view !== 'table';
  $('trace-view').hidden = view !== 'trace';
  $('view-table').classList.toggle('on', view === 'table');
  $('view-trace').classList.toggle('on', view === 'trace');
  for (const r of state.rows.values()) state.dirty.add(rowKey(r));
  scheduleDraw();
}

function showInfo(info) {
  state.info = info;
  $('record').textContent = info.recording ? `Stop recording (${info.recording})` : 'Record';
  $('record').classList.toggle('on', !!info.recording);
  if (!info.chart_js) $('chart-missing').hidden = false;
  if (!info.allow_send || $('send-channel').options.length) return;
  $('send').hidden = false;
  info.channels.forEach((name, i) => $('send-channel').add(new Option(name, i)));
  info.messages.forEach((m) => $('send-message').add(new Option(m.name, m.name)));
  const signalsOf = () => {
    const m = info.messages.find((x) => x.name === $('send-message').value);
    $('send-signals').textContent = '';
    for (const s of (m ? m.signals : [])) {
      const input = document.createElement('input');
      input.placeholder = s; input.name = s; input.title = `${s} (empty: start value)`;
      $('send-signals').appendChild(input);
    }
  };
  $('send-message').onchange = signalsOf;
  signalsOf();
}

function sendResult(r) { $('send-result').textContent = r.error || 'sent'; }

// ----- LIN, UART and K-line channels ------------------------------------------------------------
// The server sends each update's new LIN and K-line frames and UART bytes (the newest of them at
// most); the page keeps the newest rows and bytes of each and lists them per channel.
const kFamilyRows = 500, kFamilyRowsShown = 100, kUartBytes = 4096, kUartBytesShown = 512;
state.families = { channels: [], lin: [], kline: [], uart: new Map() };

function addFamilies(f) {
  const fam = state.families;
  fam.channels = f.channels;
  if (f.full) { fam.lin = []; fam.kline = []; fam.uart.clear(); }
  fam.lin.push(...f.lin);
  fam.kline.push(...f.kline);
  if (fam.lin.length > kFamilyRows) fam.lin.splice(0, fam.lin.length - kFamilyRows);
  if (fam.kline.length > kFamilyRows) fam.kline.splice(0, fam.kline.length - kFamilyRows);
  for (const u of f.uart) {
    const bytes = (fam.uart.get(u.ch) || []).concat(u.hex.match(/../g).map((h) => parseInt(h, 16)));
    fam.uart.set(u.ch, bytes.slice(-kUartBytes));
  }
}

const spaced = (hex) => (hex || '').replace(/(..)(?=.)/g, '$1 ');
const hex2 = (b) => b.toString(16).toUpperCase().padStart(2, '0');
const printable = (b) => (b >= 0x20 && b < 0x7F ? String.fromCharCode(b) : '.');

function familyTable(headings, rows) {
  const box = document.createElement('div');
  box.className = 'family-rows';
  const table = box.appendChild(document.createElement('table'));
  const head = table.createTHead().insertRow();
  for (const h of headings) head.appendChild(document.createElement('th')).textContent = h;
  const body = table.createTBody();
  for (const cells of rows) {
    const tr = body.insertRow();
    for (const [text, cls] of cells) {
      const td = tr.insertCell();
      td.textContent = text;
      if (cls) td.className = cls;
    }
  }
  return box;
}

const verdictClass = (v) => (v === 'bad' || v === 'incomplete' ? 'verdict loss' : 'verdict');

function linRows(ch) {
  return state.families.lin.filter((r) => r.ch === ch).slice(-kFamilyRowsShown).reverse()
    .map((r) => [[(r.t / 1e6).toFixed(3)], [r.id, 'id'], [r.pid], [spaced(r.data), 'data'],
      [r.check, 'check'], [r.verdict, verdictClass(r.verdict)]]);
}

function klineRows(ch) {
  return state.families.kline.filter((r) => r.ch === ch).slice(-kFamilyRowsShown).reverse()
    .map((r) => [[(r.t / 1e6).toFixed(3)], [r.bytes.substr(0, 2)], [r.tgt || ''], [r.src || ''],
      [r.sid || '', 'sid'], [spaced(r.data), 'data'], [r.check || ''],
      [r.verdict, verdictClass(r.verdict)], [spaced(r.bytes), 'bytes']]);
}

// The newest bytes as a hex dump, 16 a line with their printable characters, and as text.
function uartViews(ch) {
  const bytes = (state.families.uart.get(ch) || []).slice(-kUartBytesShown);
  const hex = document.createElement('pre');
  hex.className = 'uart-hex';
  const lines = [];
  for (let i = 0; i < bytes.length; i += 16) {
    const line = bytes.slice(i, i + 16);
    lines.push(`${line.map(hex2).join(' ').padEnd(47)}  |${line.map(printable).join('')}|`);
  }
  hex.textContent = lines.join('\n');
  const text = document.createElement('pre');
  text.className = 'uart-text';
  text.textContent = bytes.filter((b) => b !== 0x0D)
    .map((b) => (b === 0x0A ? '\n' : printable(b))).join('');
  return [hex, text];
}

function drawFamilies() {
  const box = $('families');
  box.hidden = false;
  box.textContent = '';
  state.families.channels.forEach((c, ch) => {
    const div = box.appendChild(document.createElement('div'));
    div.className = `family-channel ${c.family}`;
    div.dataset.channel = c.name;
    const head = div.appendChild(document.createElement('div'));
    head.className = 'family-head';
    const unit = c.family === 'uart' ? 'bytes' : 'frames';
    const errors = c.family === 'uart' ? '' : `, ${c.errors} with a bad checksum`;
    head.textContent = `${c.name} (${c.family === 'kline' ? 'K-line' : c.family.toUpperCase()}` +
      ` @ ${c.baud} baud): ${c.count} ${unit}${errors}` +
      (c.skipped ? `, ${c.skipped} ${unit} not listed (the newest of each update are)` : '');
    if (c.errors || c.skipped) head.classList.add('loss');
    if (c.family === 'lin')
      div.appendChild(familyTable(['Time s', 'ID', 'PID', 'Data', 'Checksum', 'Verdict'], linRows(ch)));
    else if (c.family === 'kline')
      div.appendChild(familyTable(['Time s', 'Fmt', 'Tgt', 'Src', 'SID', 'Data', 'Checksum',
        'Verdict', 'Bytes'], klineRows(ch)));
    else
      for (const view of uartViews(ch)) div.appendChild(view).scrollTop = view.scrollHeight;  // newest
  });
}

function setup() {
  $('view-table').onclick = () => setView('table');
  $('view-trace').onclick = () => setView('trace');
  $('pause').onclick = () => {
    state.paused = !state.paused;
    $('pause').textContent = state.paused ? 'Resume' : 'Pause';
    $('pause').classList.toggle('on', state.paused);
    if (!state.paused) setView(state.view);
  };
  $('clear').onclick = () => {
    post('clear', {});
    state.rows.clear(); state.trace = []; state.history.clear(); state.traceSkipped = 0;
    state.families.lin = []; state.families.kline = []; state.families.uart.clear();
    $('rows').textContent = ''; drawChart(); scheduleDraw();
  };
  $('record').onclick = () => post('record', { on: state.info && state.info.recording ? '0' : '1' }).then(showInfo);
  $('filter').oninput = () => setView(state.view);
  $('range').onchange = drawChart;
  $('pan').oninput = drawChart;
  $('send-raw').onclick = () => post('send', { channel: $('send-channel').value, frame: $('send-frame').value }).then(sendResult);
  $('send-dbc').onclick = () => {
    const body = { channel: $('send-channel').value, message: $('send-message').value };
    for (const input of $('send-signals').querySelectorAll('input')) body[input.name] = input.value;
    post('send', body).then(sendResult);
  };
  setupReplay();
  if (!chartAvailable()) $('chart-missing').hidden = false;
  fetch(withToken('info')).then((r) => r.json()).then(showInfo);
  const events = new EventSource(withToken('events'));
  events.onopen = () => { $('status').textContent = 'live'; };
  events.onerror = () => { $('status').textContent = 'disconnected, retrying…'; };
  events.onmessage = onUpdate;
  // the chart redraws twice a second at most, whatever the update rate
  setInterval(() => { if (state.plotted.length && !state.paused) drawChart(); }, 500);
}

setup();
