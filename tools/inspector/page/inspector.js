// The inspector's page. Whatever comes from the bus is inserted as text, never as HTML: only make()
// and draw() create elements.
"use strict";

// --- Small tools ------------------------------------------------------------------------------

const $ = (id) => document.getElementById(id);

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (value === true) element.setAttribute(name, "");
    else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(name, value);
    }
  }
  for (const child of children) {
    element.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return element;
}

const make = (tag, attributes = {}, ...children) =>
  fill(document.createElement(tag), attributes, children);
const draw = (tag, attributes = {}, ...children) =>
  fill(document.createElementNS("http://www.w3.org/2000/svg", tag), attributes, children);

// Acts on a click and on Enter or the space bar.
function pressable(action) {
  return {
    tabindex: 0,
    role: "button",
    onclick: action,
    onkeydown: (event) => {
      if (event.key !== "Enter" && event.key !== " ") return;
      event.preventDefault();
      action(event);
    },
  };
}

const pad = (number, digits) => String(number).padStart(digits, "0");

function timeText(us) {
  const time = new Date(us / 1000);
  return `${pad(time.getHours(), 2)}:${pad(time.getMinutes(), 2)}:${pad(time.getSeconds(), 2)}` +
    `.${pad(Math.floor(us % 1e6), 6)}`;
}
const secondText = (us) => timeText(us).slice(0, 8);

function durationText(ns) {
  if (ns < 100) return "0 µs";
  if (ns < 1e6) return `${(ns / 1e3).toFixed(ns < 1e4 ? 1 : 0)} µs`;
  if (ns < 1e9) return `${(ns / 1e6).toFixed(1)} ms`;
  return `${(ns / 1e9).toFixed(2)} s`;
}

function bytesText(bytes) {
  if (bytes < 1000) return `${bytes} B`;
  return bytes < 1e6 ? `${(bytes / 1e3).toFixed(1)} kB` : `${(bytes / 1e6).toFixed(1)} MB`;
}

const countText = (count) => Number(count).toLocaleString("en");

function rateText(rate) {
  return rate >= 10 || rate === 0 ? countText(Math.round(rate)) : rate.toFixed(1);
}

const shorten = (text, most) => (text.length > most ? text.slice(0, most - 1) + "…" : text);

// --- What is known ----------------------------------------------------------------------------

const mostRecords = 5000; // the page remembers
const mostRows = 300; // a table shows

const state = {
  status: null, // the last one that came from the inspector
  connected: false,
  view: "map",
  filter: "",
  paused: false,
  held: [], // came while paused
  range: null, // {from, to} in µs since 1970; null: live, or the whole file
  window_s: 60,
  records: [], // in the order in which they came
  skipped: 0,
  summary: null,
  type: null, // whose latency is drawn
  selected: null, // sequence of the record in the detail
};

const isPast = () => Boolean(state.status && state.status.past);
const now = () => (state.status ? state.status.now_us + (performance.now() - state.told) * 1000 : 0);

// The range of all views; without an end while it is live.
function currentRange() {
  if (state.range) return state.range;
  if (isPast()) return { from: state.status.first_at_us, to: state.status.last_at_us };
  return { from: Math.floor(now() - state.window_s * 1e6), to: null };
}

const within = (at, range) => at >= range.from && (range.to === null || at <= range.to);

// --- Asking the inspector -----------------------------------------------------------------------

function place(path, parameters = {}) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters)) {
    if (value !== null && value !== undefined && value !== "") query.set(name, value);
  }
  return query.size ? `${path}?${query}` : path;
}

class Refused extends Error {}

async function ask(path, parameters) {
  const answer = await fetch(place(path, parameters));
  const text = await answer.text();
  if (answer.ok) return JSON.parse(text);
  let why = text.trim();
  try {
    why = JSON.parse(text).error;
  } catch {
    // The reason is plain text.
  }
  throw answer.status === 400 ? new Refused(why) : new Error(why);
}

const asked = () => ({
  filter: state.filter,
  all: $("all").checked ? 1 : null,
  from: state.range ? state.range.from : null,
  to: state.range ? state.range.to : null,
});

// --- The connection -----------------------------------------------------------------------------

let source = null;
let attempt = 0; // the newest attempt to connect; answers to older ones are dropped

function note(text) {
  const time = secondText(Date.now() * 1000);
  $("notes").append(make("li", {}, `${time} ${text}`));
  while ($("notes").children.length > 4) $("notes").firstChild.remove();
}

// Loads the records of the selection, then follows new ones.
async function connect() {
  const mine = ++attempt;
  if (source) source.close();
  source = null;
  try {
    takeStatus(await ask("v1/status"));
    const answer = await ask("v1/records", { ...asked(), limit: 1000 });
    if (mine !== attempt) return;
    $("filter-problem").textContent = "";
    state.records = answer.records;
    state.held = [];
    state.skipped = 0;
    listen(answer.last, mine);
    refresh();
  } catch (error) {
    if (mine !== attempt) return;
    if (error instanceof Refused) $("filter-problem").textContent = error.message;
    else lose(error.message, mine);
  }
}

function listen(last, mine) {
  source = new EventSource(place("v1/events", { ...asked(), after: last }));
  source.addEventListener("status", (event) => takeStatus(JSON.parse(event.data)));
  source.addEventListener("records", (event) => takeRecords(JSON.parse(event.data)));
  source.onerror = () => {
    source.close();
    if (mine === attempt) lose("the inspector does not answer", mine);
  };
}

function lose(why, mine) {
  if (state.connected || !state.lost) note(`Connection lost: ${why}. Trying again.`);
  state.connected = false;
  state.lost = true;
  showStatus(why);
  setTimeout(() => {
    if (mine === attempt) connect();
  }, 1000);
}

function takeStatus(status) {
  const before = state.status;
  state.status = status;
  state.told = performance.now();
  if (state.lost) note("Connected again.");
  state.connected = true;
  state.lost = false;
  if (before && before.session !== status.session) {
    note("The inspector was started anew.");
    state.summary = null;
  } else if (before && before.servers !== status.servers && before.servers > 0) {
    note("The message server was started anew.");
  } else if (before && before.state === "live" && status.state === "ended") {
    note("The message server has ended.");
  }
  if (!before) begin();
  showStatus();
}

function begin() {
  const { past, masked, allow_send: send } = state.status;
  $("live").textContent = past ? "Everything" : "Live";
  $("window").closest("label").hidden = past;
  $("send").hidden = !send;
  document.title = `Message bus: ${past ? state.status.source : "live"}`;
  if (!masked) note("Personal data is shown.");
}

function showStatus(why) {
  const { status } = state;
  const words = {
    live: "Live",
    past: "The past",
    ended: "The message server has ended",
    waiting: "Waiting for the message server",
    damaged: "Damaged",
  };
  const name = state.connected && status ? status.state : "lost";
  $("status").dataset.state = name;
  const text = name === "lost" ? `Not connected: ${why}` : words[name];
  const reason = status && name !== "lost" && name !== "live" && name !== "ended" ? status.reason : "";
  const shown = reason ? `${text}: ${reason}` : text;
  if ($("status").textContent !== shown) $("status").textContent = shown;
  if (!status) return;
  const parts = [`${countText(status.records)} records`];
  if (status.left_out) parts.push(`${countText(status.left_out)} left out, for there were too many`);
  if (status.missed) parts.push(`${countText(status.missed)} missed`);
  if (status.forgotten) parts.push(`${countText(status.forgotten)} forgotten`);
  $("counts").textContent = parts.join(", ");
}

function takeRecords(news) {
  state.skipped += news.skipped;
  const list = state.paused ? state.held : state.records;
  list.push(...news.records);
  if (list.length > mostRecords) list.splice(0, list.length - mostRecords);
  if (state.paused) showPause();
  else refreshSoon();
}

// --- Controls -----------------------------------------------------------------------------------

function setFilter(text) {
  state.filter = text.trim();
  $("filter").value = state.filter;
  connect();
}

function showPause() {
  $("pause").setAttribute("aria-pressed", String(state.paused));
  $("pause").textContent = !state.paused ? "Pause"
    : state.held.length ? `Go on (${countText(state.held.length)} new)` : "Go on";
}

function pause(paused) {
  state.paused = paused;
  if (!paused) {
    state.records = state.records.concat(state.held).slice(-mostRecords);
    state.held = [];
    refresh();
  }
  showPause();
}

const quoted = (name) => `"${name.replace(/["\\,*?[\]]/g, "?")}"`;

function showMessagesOf(filter) {
  setFilter(filter);
  choose("stream");
}

function setExport(link, format) {
  const range = currentRange();
  link.href = place("v1/export", { ...asked(), from: range.from, to: range.to, format });
}

// --- The time range -----------------------------------------------------------------------------

const stretches = () => (state.summary ? state.summary.timeline : []);

function setRange(range) {
  state.range = range;
  $("live").setAttribute("aria-pressed", String(range === null));
  connect();
}

function rangeOfStretches(first, last) {
  const list = stretches();
  if (!list.length) return null;
  const clamp = (index) => Math.min(Math.max(index, 0), list.length - 1);
  const [from, to] = [Math.min(first, last), Math.max(first, last)];
  return { from: list[clamp(from)][0], to: list[clamp(to)][0] + state.summary.width_us - 1 };
}

function showTimeline() {
  const list = stretches();
  const range = currentRange();
  const most = Math.max(1, ...list.map((each) => each[1]));
  const width = 600 / Math.max(list.length, 1);
  const chosen = list.map((each) => within(each[0] + state.summary.width_us - 1, { ...range, to: null }) &&
    (range.to === null || each[0] <= range.to));
  const bar = (name, index, count) => {
    const height = count ? Math.max(2, Math.min(36, 36 * count / most)) : 0;
    return draw("rect", { class: name, x: index * width, width: width * 0.9, y: 40 - height, height });
  };
  const bars = list.flatMap(([, messages, lost], index) =>
    [bar("bar", index, messages), bar("bar lost", index, lost)]);
  const first = chosen.indexOf(true), last = chosen.lastIndexOf(true);
  if (first >= 0) {
    bars.push(draw("rect", {
      class: "chosen", x: first * width, width: (last - first + 1) * width, y: 0, height: 40,
    }));
  }
  $("timeline").replaceChildren(...bars);
  for (const id of ["from", "to"]) $(id).max = Math.max(list.length - 1, 0);
  if (first >= 0 && !["from", "to"].includes(document.activeElement?.id)) {
    $("from").value = first;
    $("to").value = last;
  }
  $("range").textContent = `${secondText(range.from)} – ` +
    (range.to === null ? "now" : secondText(range.to));
}

function dragTimeline() {
  let begin = null;
  const stretchAt = (event) => {
    const box = $("timeline").getBoundingClientRect();
    return Math.floor((event.clientX - box.left) / box.width * stretches().length);
  };
  $("timeline").addEventListener("pointerdown", (event) => {
    begin = stretchAt(event);
    $("timeline").setPointerCapture(event.pointerId);
  });
  $("timeline").addEventListener("pointerup", (event) => {
    if (begin !== null && stretches().length) setRange(rangeOfStretches(begin, stretchAt(event)));
    begin = null;
  });
}

// --- Views: when they are drawn -----------------------------------------------------------------

const views = {
  map: showMap,
  stream: showStream,
  sequence: showSequence,
  latency: showLatency,
  clients: showClients,
  logs: showLogs,
};

function choose(name) {
  state.view = name;
  for (const each of Object.keys(views)) {
    const tab = $(`tab-${each}`);
    tab.setAttribute("aria-selected", String(each === name));
    tab.tabIndex = each === name ? 0 : -1;
    $(`view-${each}`).hidden = each !== name;
  }
  refresh();
}

// Drawing takes at most a fifth of the time, so that clicks and keys find the page idle.
let soon = 0;
let took = 0; // ms, of the last drawing
const restFor = (least) => Math.max(least, 4 * took);

function refreshSoon() {
  if (soon || state.view === "map" || state.view === "latency" || state.view === "clients") return;
  soon = setTimeout(() => {
    soon = 0;
    if (!state.paused) show();
  }, restFor(200));
}

async function show() {
  const begin = performance.now();
  try {
    await views[state.view]();
  } catch (error) {
    if (state.connected) $("counts").textContent = error.message;
  }
  took = performance.now() - begin;
}

async function refresh() {
  if (!state.connected) return;
  const range = currentRange();
  try {
    state.summary = await ask("v1/summary", { from: range.from, to: range.to, type: state.type });
  } catch (error) {
    // While there is a stream of records, only its end tells that the connection is lost.
    if (!source && !(error instanceof Refused)) lose(error.message, attempt);
    return;
  }
  showTimeline();
  await show();
}

// --- The map ------------------------------------------------------------------------------------

const slots = new Map(); // a place for each name, kept for good, so that nothing on the map moves
const drawn = new Map(); // elements by the node or edge that they show

function slotOf(name) {
  if (!slots.has(name)) slots.set(name, slots.size + (slots.has("server") || name === "server" ? 0 : 1));
  const index = name === "server" ? 0 : slots.get(name);
  // Placed like a sunflower's seeds: no place depends on how many names there are.
  const radius = index === 0 ? 0 : 150 + 62 * Math.sqrt(index - 1);
  const angle = index * 2.39996;
  return { x: radius * 1.25 * Math.cos(angle), y: radius * 0.82 * Math.sin(angle) };
}

function elementOf(key, create) {
  let element = drawn.get(key);
  if (!element) {
    element = create();
    element.dataset.key = key;
    drawn.set(key, element);
  }
  return element;
}

// A curve, so that both directions can be seen, and its middle.
function curve(from, to) {
  const [dx, dy] = [to.x - from.x, to.y - from.y];
  const length = Math.hypot(dx, dy) || 1;
  const [ux, uy] = [dx / length, dy / length];
  if (dx === 0 && dy === 0) {
    return { path: `M${from.x - 10},${from.y - 20}c-30,-60 50,-60 20,0`, x: from.x, y: from.y - 62, ux: 1, uy: 0 };
  }
  const bend = Math.min(length * 0.15, 36);
  const middle = { x: (from.x + to.x) / 2 - uy * bend, y: (from.y + to.y) / 2 + ux * bend };
  const start = { x: from.x + ux * 24, y: from.y + uy * 24 };
  const end = { x: to.x - ux * 24, y: to.y - uy * 24 };
  return {
    path: `M${start.x},${start.y}Q${middle.x},${middle.y} ${end.x},${end.y}`,
    x: (start.x + 2 * middle.x + end.x) / 4, y: (start.y + 2 * middle.y + end.y) / 4, ux, uy,
  };
}

function edgeText(edge, seconds) {
  let text = `${edge.from} to ${edge.to}: ${countText(edge.messages)} messages, ` +
    `${rateText(edge.messages / seconds)} a second, ${bytesText(edge.bytes)}`;
  if (edge.lost) text += `, ${countText(edge.lost)} lost`;
  if (edge.queue_max_ns) text += `, waited up to ${durationText(edge.queue_max_ns)}`;
  return text;
}

function drawEdge(edge, seconds) {
  const element = elementOf(`edge ${JSON.stringify([edge.from, edge.to])}`, () =>
    draw("g", pressable(() => showEdge(edge.from, edge.to)),
      draw("path", { class: "wide-target" }), draw("path"), draw("polygon"), draw("title")));
  const [target, line, head, title] = element.children;
  const shape = curve(slotOf(edge.from), slotOf(edge.to));
  const text = edgeText(edge, seconds);
  element.setAttribute("class", edge.lost ? "edge lost" : edge.slow ? "edge slow" : "edge");
  element.setAttribute("aria-label", text);
  title.textContent = text;
  target.setAttribute("d", shape.path);
  line.setAttribute("d", shape.path);
  line.setAttribute("stroke-width", (1 + Math.log2(1 + edge.messages / seconds)).toFixed(1));
  const point = (along, across) =>
    `${shape.x + shape.ux * along - shape.uy * across},${shape.y + shape.uy * along + shape.ux * across}`;
  head.setAttribute("points", `${point(9, 0)} ${point(-6, 6)} ${point(-6, -6)}`);
  return element;
}

function drawNode(name, traffic) {
  const at = slotOf(name);
  const element = elementOf(`node ${name}`, () =>
    draw("g", { ...pressable(() => showNode(name)), transform: `translate(${at.x},${at.y})` },
      draw("circle", { r: 16 }), draw("text", { y: 34 }, shorten(name, 20))));
  element.setAttribute("class", traffic ? "node" : "node quiet");
  element.setAttribute("aria-label", `${name}, ${countText(traffic)} messages`);
  return element;
}

function seconds() {
  const range = currentRange();
  const first = stretches().length ? stretches()[0][0] : range.from;
  const to = range.to === null ? now() : range.to;
  return Math.max((to - Math.max(range.from, first)) / 1e6, state.summary.width_us / 1e6);
}

function showMap() {
  const { edges, missed } = state.summary;
  const traffic = new Map();
  for (const edge of edges) {
    for (const name of [edge.from, edge.to]) {
      traffic.set(name, (traffic.get(name) || 0) + edge.messages);
    }
  }
  const span = seconds();
  const wanted = [...edges.map((edge) => drawEdge(edge, span)),
    ...[...traffic].map(([name, count]) => drawNode(name, count))];
  const map = $("map");
  // Elements are reused, so that the one with the focus keeps it.
  const keep = new Set(wanted);
  for (const child of [...map.children]) if (!keep.has(child)) child.remove();
  for (const [key, element] of drawn) if (!keep.has(element)) drawn.delete(key);
  wanted.forEach((element, index) => {
    if (map.children[index] !== element) map.insertBefore(element, map.children[index] || null);
  });
  fitMap(map, [...traffic.keys()]);
  if (!edges.length) map.replaceChildren(draw("text", { "text-anchor": "middle" }, "No traffic in this time"));
  if (!edges.length) drawn.clear();
  $("map").dataset.missed = missed;
}

// Grows with the farthest place, and never shrinks.
let extent = 260;
function fitMap(map, names) {
  for (const name of names) {
    const at = slotOf(name);
    extent = Math.max(extent, Math.abs(at.y) + 60, (Math.abs(at.x) + 90) * 0.66);
  }
  map.setAttribute("viewBox", `${-extent / 0.66} ${-extent} ${2 * extent / 0.66} ${2 * extent}`);
}

// --- The stream ---------------------------------------------------------------------------------

function whatText(record) {
  const parts = [];
  if (record.loss) parts.push(`✕ ${record.loss}`);
  if (record.kind === "delivered") parts.push("delivered");
  if (record.kind === "descriptor") parts.push("descriptor");
  if (record.after_ns !== undefined) parts.push(`answer after ${durationText(record.after_ns)}`);
  if (record.queue_ns !== undefined) parts.push(`after ${durationText(record.queue_ns)}`);
  if (record.line) parts.push(record.line);
  return parts.join("  ");
}

function makeRow(record) {
  const cell = (text, name) => make("td", { class: name }, text ?? "");
  return make("tr", {
    tabindex: -1,
    class: record.kind === "lost" ? "lost" : null,
    "data-seq": record.seq,
    "aria-selected": String(record.seq === state.selected),
  },
  cell(timeText(record.at_us), "time"), cell(record.from), cell(record.to),
  cell(record.type_text || (record.type === undefined ? record.kind : `${record.kind} ${record.type}`)),
  cell(record.sequence, "number"), cell(record.data, "number"), cell(record.length, "number"),
  cell(shorten(whatText(record), 400), "what"));
}

// The newest first.
function showStream() {
  const body = $("stream").tBodies[0];
  const range = currentRange();
  const matching = state.records.filter((record) => within(record.at_us, range));
  const rows = matching.slice(-mostRows).reverse();
  const known = new Map([...body.rows].map((row) => [row.dataset.seq, row]));
  const wanted = rows.map((record) => known.get(String(record.seq)) || makeRow(record));
  const focus = document.activeElement;
  body.replaceChildren(...wanted);
  if (wanted.includes(focus)) focus.focus({ preventScroll: true });
  else if (wanted.length) wanted[0].tabIndex = 0;
  const hints = [matching.length ? `The newest ${rows.length} of ${countText(matching.length)} that match.`
    : "Nothing in this time matches."];
  if (state.status.one_in > 1) {
    hints.push(`There are too many to show: one exchange in ${state.status.one_in} is kept.`);
  }
  if (state.skipped) hints.push(`${countText(state.skipped)} came too fast for this page.`);
  $("stream-hint").textContent = hints.join(" ");
}

function streamKeys(event) {
  const row = event.target.closest("tr");
  if (!row || !row.dataset.seq) return;
  const next = { ArrowDown: row.nextElementSibling, ArrowUp: row.previousElementSibling }[event.key];
  if (next) {
    event.preventDefault();
    row.tabIndex = -1;
    next.tabIndex = 0;
    next.focus();
  } else if (event.key === "Enter") {
    openRecord(Number(row.dataset.seq));
  }
}

// --- The sequence diagram -----------------------------------------------------------------------

const mostArrows = 60;

function arrowsOf(range) {
  const list = state.records.filter((record) => within(record.at_us, range) && record.from !== undefined &&
    (record.kind === "accepted" || record.kind === "lost"));
  return { arrows: list.slice(-mostArrows), left: Math.max(0, list.length - mostArrows) };
}

function drawArrow(record, from, to, y) {
  const lost = record.kind === "lost";
  const answer = record.answers !== undefined;
  const words = shorten(`${record.type_text || record.type || ""}` +
    (lost ? ` ✕ ${record.loss}` : ` = ${record.data}`) +
    (record.after_ns === undefined ? "" : `, after ${durationText(record.after_ns)}`), 44);
  const element = draw("g", {
    ...pressable(() => openRecord(record.seq)),
    class: `arrow${answer ? " answer" : ""}${lost ? " lost" : ""}`,
    "aria-label": `${record.from} to ${record.to}: ${words}`,
  }, draw("title", {}, shorten(record.line || words, 200)));
  if (from === to) {
    element.append(draw("path", { d: `M${from},${y}h36v10h-36` }));
  } else {
    const end = lost ? to - Math.sign(to - from) * 12 : to;
    element.append(draw("line", { x1: from, y1: y, x2: end, y2: y }));
    const back = to > from ? -8 : 8;
    element.append(lost ? draw("path", { d: `M${end - 5},${y - 5}l10,10m0,-10l-10,10` })
      : draw("polygon", { points: `${to},${y} ${to + back},${y - 4} ${to + back},${y + 4}` }));
  }
  element.append(draw("text", { x: (from + to) / 2 + (from === to ? 20 : 0), y: y - 4, "text-anchor": "middle" }, words));
  return element;
}

function showSequence() {
  const { arrows, left } = arrowsOf(currentRange());
  const names = [...new Set(arrows.flatMap((record) => [record.from, record.to]))];
  const column = 250, first = 240, row = 30, top = 46;
  const x = (name) => first + names.indexOf(name) * column;
  const height = top + (arrows.length + 1) * row;
  const width = first + Math.max(names.length - 1, 0) * column + 160;
  const parts = [];
  for (const name of names) {
    parts.push(draw("line", { class: "life", x1: x(name), x2: x(name), y1: 24, y2: height }),
      draw("text", { x: x(name), y: 16, "text-anchor": "middle", "font-weight": 600 }, shorten(name, 24)));
  }
  arrows.forEach((record, index) => {
    const y = top + index * row + 12;
    parts.push(draw("text", { class: "dim", x: 4, y: y + 4 }, timeText(record.at_us)),
      drawArrow(record, x(record.from), x(record.to), y));
  });
  const svg = $("sequence");
  svg.setAttribute("viewBox", `0 0 ${width} ${height}`);
  svg.setAttribute("width", width);
  svg.setAttribute("height", height);
  svg.replaceChildren(...parts);
  $("sequence-hint").textContent = !arrows.length ? "No messages in this time match."
    : `The last ${arrows.length} messages` + (left ? `; ${countText(left)} before them: choose a shorter time.` : ".");
}

// --- Latency ------------------------------------------------------------------------------------

function typeRow(type, measure) {
  const times = type[measure];
  const cell = (text) => make("td", { class: "number" }, text);
  const choose = make("button", {
    type: "button",
    "aria-pressed": String(type.type === state.type),
    onclick: () => {
      state.type = state.type === type.type ? null : type.type;
      refresh();
    },
  }, type.name);
  return make("tr", {}, make("td", {}, choose), cell(countText(times.count)),
    ...["p50_ns", "p90_ns", "p99_ns", "max_ns"].map((each) => cell(durationText(times[each]))));
}

function showHistogram(octaves) {
  const svg = $("histogram");
  if (!octaves.length) return svg.replaceChildren(draw("text", { x: 20, y: 40 }, "Nothing was measured"));
  const most = Math.max(...octaves.map((each) => each[1]));
  const width = Math.min(760 / octaves.length, 90);
  const parts = octaves.flatMap(([least, count], index) => {
    const height = Math.max(2, 150 * count / most);
    const x = 20 + index * width;
    return [draw("rect", { x, y: 180 - height, width: width - 4, height },
      draw("title", {}, `${countText(count)} from ${durationText(least)}`)),
    draw("text", { x, y: 176 - height }, countText(count)),
    draw("text", { class: "dim", x, y: 198 }, `≥ ${durationText(least)}`)];
  });
  svg.replaceChildren(...parts);
}

function showSeries(series) {
  const svg = $("series");
  if (series.length < 2) return svg.replaceChildren();
  const [first, last] = [series[0][0], series[series.length - 1][0]];
  const most = Math.max(...series.map((each) => each[2]), 1);
  const path = (index) => series.map((each, i) =>
    `${i ? "L" : "M"}${60 + 720 * (each[0] - first) / (last - first || 1)},${130 - 110 * each[index] / most}`).join("");
  svg.replaceChildren(
    draw("path", { d: path(1) }), draw("path", { class: "p99", d: path(2) }),
    draw("text", { class: "dim", x: 0, y: 24 }, durationText(most)),
    draw("text", { class: "dim", x: 60, y: 152 }, secondText(first)),
    draw("text", { class: "dim", x: 720, y: 152 }, secondText(last)),
    draw("text", { class: "dim", x: 260, y: 152 }, "solid: 50 %, dashed: 99 % are faster"));
}

function showLatency() {
  const measure = $("measure").value;
  const types = state.summary.types.filter((type) => type[measure].count > 0);
  const focus = [...$("latency").querySelectorAll("button")].indexOf(document.activeElement);
  $("latency").tBodies[0].replaceChildren(...types.map((type) => typeRow(type, measure)));
  if (focus >= 0) $("latency").querySelectorAll("button")[focus]?.focus();
  const chosen = state.summary.types.find((type) => type.type === state.type);
  $("latency-type").textContent = chosen ? chosen.name : "All types";
  showHistogram(state.summary.times[measure].octaves);
  showSeries(state.summary.times[measure].series);
}

// --- Clients ------------------------------------------------------------------------------------

function clientState(client) {
  if (client.left) return "has left";
  if (client.slow) return "slow";
  if (client.held) return "held";
  return client.swapped ? "connected, other byte order" : "connected";
}

function clientRow(client) {
  const cell = (text, name) => make("td", { class: name }, text);
  const count = (flow) => (flow ? `${countText(flow.messages)} (${bytesText(flow.bytes)})` : "");
  const button = make("button", { type: "button", onclick: () => openClient(client) }, client.name || `#${client.id}`);
  return make("tr", { class: client.slow ? "slow" : client.lost ? "lost" : null },
    make("td", {}, button), cell(client.pid ?? "", "number"), cell(client.program || client.address || "", "what"),
    cell(count(client.in), "number"), cell(count(client.out), "number"),
    cell(client.queued_bytes === undefined ? "" : bytesText(client.queued_bytes), "number"),
    cell(client.lost ?? "", "number"), cell(clientState(client)));
}

function listOf(title, lines) {
  if (!lines.length) return [];
  return [make("h2", {}, title), make("ul", {}, ...lines.map((line) => make("li", {}, line)))];
}

function lossLines(stats) {
  if (!stats) return [];
  const kinds = Object.entries(stats.lost).filter(([, count]) => count > 0)
    .map(([kind, count]) => `${kind.replaceAll("_", " ")}: ${countText(count)}`);
  return kinds.concat(stats.culprits.map((each) =>
    `${each.from} → ${each.to}: ${countText(each.count)} (${each.loss.replaceAll("_", " ")})`));
}

async function showClients() {
  const answer = await ask("v1/clients");
  const body = $("clients").tBodies[0];
  const focus = [...body.querySelectorAll("button")].indexOf(document.activeElement);
  body.replaceChildren(...answer.clients.map(clientRow));
  if (focus >= 0) body.querySelectorAll("button")[focus]?.focus();
  $("clients-hint").textContent = answer.error ? `As recorded; ${answer.error}` : isPast() ? "As recorded." : "";
  $("clients-more").replaceChildren(
    ...listOf("Lost", lossLines(answer.stats)),
    ...listOf("Subscriptions", (answer.subscriptions || []).map((each) => `${each.event_text}: ${each.name}`)),
    ...listOf("Paths", (answer.paths || []).map((each) => `${each.path}: ${each.name}`)));
}

// --- Logs beside the stream ---------------------------------------------------------------------

async function showLogs() {
  const range = currentRange();
  const answer = await ask("v1/logs", { from: range.from, to: range.to, limit: mostRows });
  const lines = answer.lines.map((line) => ({ at: line.at_us, line }));
  const records = state.records.filter((record) => within(record.at_us, range)).slice(-mostRows)
    .map((record) => ({ at: record.at_us, record }));
  const both = [...lines, ...records].sort((left, right) => left.at - right.at).slice(-mostRows).reverse();
  $("logs").tBodies[0].replaceChildren(...both.map(logRow));
  const hints = answer.problems.slice();
  if (!lines.length) hints.push("No log lines in this time.");
  if (answer.more) hints.push("There are more log lines than shown: choose a shorter time.");
  $("logs-hint").textContent = hints.join(" ");
}

function logRow({ at, line, record }) {
  const time = make("td", { class: "time" }, timeText(at));
  if (line) {
    const bad = line.level === "ERRO" || line.level === "FATL";
    return make("tr", { class: bad ? "lost" : null }, time, make("td"),
      make("td", { class: "text" }, `${line.module} ${line.level}: ${line.text}`));
  }
  const ends = record.from === undefined ? "" : `${record.from} → ${record.to}  `;
  const button = make("button", { type: "button", onclick: () => openRecord(record.seq) },
    shorten(`${ends}${record.type_text || record.kind}  ${whatText(record)}`, 160));
  return make("tr", { class: record.kind === "lost" ? "lost" : null }, time, make("td", { class: "what" }, button), make("td"));
}

// --- The detail ---------------------------------------------------------------------------------

let before = null; // what had the focus when the detail was opened

function openDetail(title, facts, ...more) {
  if ($("detail").hidden) before = document.activeElement;
  $("detail-title").textContent = title;
  $("detail-facts").replaceChildren(...facts
    .filter(([, value]) => value !== undefined && value !== null && value !== "")
    .flatMap(([name, value]) => [make("dt", {}, name), make("dd", {}, value)]));
  $("detail-more").replaceChildren(...more);
  $("detail").hidden = false;
}

function closeDetail() {
  $("detail").hidden = true;
  select(null);
  if (before && before.isConnected) before.focus();
}

function select(seq) {
  state.selected = seq;
  for (const row of $("stream").tBodies[0].rows) {
    row.setAttribute("aria-selected", String(Number(row.dataset.seq) === seq));
  }
}

const linkTo = (record, text) =>
  make("button", { type: "button", onclick: () => openRecord(record.seq) }, text);

// Links to what belongs to a message: its request, its answer, its deliveries and losses.
function relatives(record) {
  const same = (other) => other.server === record.server && other.seq !== record.seq;
  const found = [];
  for (const other of state.records) {
    if (!same(other)) continue;
    if (other.number === record.answers) found.push(linkTo(other, "Its request"));
    else if (other.answers === record.number && other.kind === "accepted") found.push(linkTo(other, "Its answer"));
    else if (other.about === record.number) found.push(linkTo(other, other.kind === "lost" ? `Lost: ${other.loss}` : `Delivered to ${other.to}`));
    else if (other.number === record.about) found.push(linkTo(other, "The message"));
  }
  return found.slice(0, 20);
}

function openRecord(seq) {
  const record = state.records.concat(state.held).find((each) => each.seq === seq);
  if (!record) return;
  const body = record.body === null || record.body === undefined ? null
    : typeof record.body === "string" ? record.body : JSON.stringify(record.body, null, 2);
  openDetail(`${record.kind}: ${record.type_text || record.line || record.number}`, [
    ["Time", timeText(record.at_us)], ["From", record.from], ["To", record.to],
    ["Number", record.sequence], ["Data", record.data], ["Bytes", record.length], ["Loss", record.loss],
    ["Board", record.board], ["Waited", record.queue_ns === undefined ? null : durationText(record.queue_ns)],
    ["Answer after", record.after_ns === undefined ? null : durationText(record.after_ns)],
    ["What", record.from === undefined ? record.line : null],
  ],
  ...(body === null ? [] : [make("h2", {}, "Body"), make("pre", { id: "detail-body" }, body)]),
  ...relatives(record),
  make("details", {}, make("summary", {}, "The record"), make("pre", {}, JSON.stringify(record, null, 2))));
  select(seq);
}

function showEdge(from, to) {
  const edge = state.summary.edges.find((each) => each.from === from && each.to === to);
  if (!edge) return;
  openDetail(`${from} → ${to}`, [
    ["Messages", countText(edge.messages)], ["A second", rateText(edge.messages / seconds())],
    ["Bytes", bytesText(edge.bytes)], ["Lost", countText(edge.lost)],
    ["Waited up to", durationText(edge.queue_max_ns)],
  ], make("button", { type: "button", onclick: () => showMessagesOf(`from=${quoted(from)} and to=${quoted(to)}`) },
    "Show these messages"));
}

function showNode(name) {
  const lines = state.summary.edges.filter((edge) => edge.from === name || edge.to === name)
    .map((edge) => make("li", {}, edgeText(edge, seconds())));
  openDetail(name, [], make("ul", {}, ...lines),
    make("button", { type: "button", onclick: () => showMessagesOf(`app=${quoted(name)}`) }, "Show its messages"));
}

async function openClient(client) {
  let full = client;
  try {
    if (!isPast()) full = await ask(`v1/clients/${client.id}`);
  } catch {
    // The client has left meanwhile: what the list said is shown.
  }
  openDetail(full.name || `#${full.id}`, [
    ["Program", full.program], ["Process", full.pid], ["User", full.user ?? full.uid], ["Address", full.address],
    ["Queue", full.queue_limit ? `${bytesText(full.queued_bytes)} of ${bytesText(full.queue_limit)}` : null],
    ["Lost", full.lost], ["State", clientState(full)], ["Left because", full.last_words],
    ["Paths", (full.paths || []).join(", ")], ["Waits at", (full.sync_points || []).join(", ")],
    ["Subscriptions", (full.subscriptions || []).concat(full.named_subscriptions || []).join(", ")],
  ], make("button", { type: "button", onclick: () => showMessagesOf(`app=${quoted(full.name || `#${full.id}`)}`) },
    "Show its messages"));
}

// --- Sending, where that is allowed -------------------------------------------------------------

async function send(event) {
  event.preventDefault();
  const form = event.target.elements;
  $("sent").textContent = "…";
  try {
    const answer = await fetch("v1/send", {
      method: "POST",
      body: JSON.stringify({
        to: form.to.value, type: form.type.value, data: Number(form.data.value),
        body: form.body.value, answered: form.answered.checked,
      }),
    });
    const result = await answer.json();
    $("sent").textContent = result.error || (result.status === 0 ? "Sent. " : `Status ${result.status}. `) +
      (result.answer ? JSON.stringify(result.answer) : "");
  } catch (error) {
    $("sent").textContent = error.message;
  }
}

async function tick() {
  const still = isPast() && state.summary; // nothing new comes
  if (!state.paused && !still) await refresh();
  setTimeout(tick, restFor(1000));
}

// --- The start ----------------------------------------------------------------------------------

function tabKeys(event) {
  const names = Object.keys(views);
  const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
  if (!step) return;
  const next = names[(names.indexOf(state.view) + step + names.length) % names.length];
  choose(next);
  $(`tab-${next}`).focus();
}

function listenToControls() {
  for (const name of Object.keys(views)) $(`tab-${name}`).addEventListener("click", () => choose(name));
  $("tabs").addEventListener("keydown", tabKeys);
  $("controls").addEventListener("submit", (event) => {
    event.preventDefault();
    setFilter($("filter").value);
  });
  $("all").addEventListener("change", connect);
  $("pause").addEventListener("click", () => pause(!state.paused));
  $("export-pcapng").addEventListener("click", (event) => setExport(event.currentTarget, "pcapng"));
  $("export-json").addEventListener("click", (event) => setExport(event.currentTarget, "json"));
  $("live").addEventListener("click", () => setRange(null));
  $("window").addEventListener("change", () => {
    state.window_s = Number($("window").value);
    setRange(null);
  });
  for (const id of ["from", "to"]) {
    $(id).addEventListener("change", () =>
      setRange(rangeOfStretches(Number($("from").value), Number($("to").value))));
  }
  dragTimeline();
  $("measure").addEventListener("change", show);
  $("stream").tBodies[0].addEventListener("keydown", streamKeys);
  $("stream").tBodies[0].addEventListener("click", (event) => {
    const row = event.target.closest("tr");
    if (row) openRecord(Number(row.dataset.seq));
  });
  $("close").addEventListener("click", closeDetail);
  document.addEventListener("keydown", (event) => {
    if (event.key === "Escape" && !$("detail").hidden) closeDetail();
  });
  $("send-form").addEventListener("submit", send);
}

listenToControls();
connect();
tick();
