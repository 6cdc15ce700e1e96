// The relay's page. What devices say of themselves is text from strangers: it gets into the page by
// textContent alone. Only rows that are in sight of the list's window exist, and only what has
// changed in them is touched, so that a thousand devices cost no more than fifty.
"use strict";

const WINDOW = 60;              // rows more each time
const REORDER_MS = 3000;        // while what the list is sorted by moves
const SILENCE_MS = 40000;       // the relay says something every 15 s
const HIDDEN_MS = 20000;        // nobody looks: the browser has few connections to one host
const ALERTS_SHOWN = 4;
const MAINTENANCE_PORT = 10010;
const DAEMON_ECHO = MAINTENANCE_PORT + "/?x-qv-gwad-opt=echo";
const ALERTS = {
  "id used twice": ["id used twice", "Two boxes log in with this id and push each other out. Give each an id of its own."],
  "no data connection": ["no data", "It has logged in, but none of its data connections has come. Can the box reach the data port?"],
  "held back": ["held back", "A user takes less than the box sends, and others may wait for him."],
};
const LABELS = { deviceid: "Id", fwver: "Firmware", prover: "Product version", component: "Component", terminal: "Terminal",
  mac: "MAC", ip: "Address at home" };

const devices = new Map();  // by id: what the relay says, and what we have made of it
const rows = new Map();     // by id: the nodes of those in the window
const details = new Map();  // by id: what the relay says of unfolded ones
const unfolded = new Set();
const view = { which: "all", words: [], order: "name", descending: false, window: WINDOW };
let whole = {};
let clockOffset = 0;  // the relay's clock minus ours, s
let listed = [];
let listedAt = 0;
let isDirty = false;
let hasAll = false;

// --- small things ---

const $ = (id) => document.getElementById(id);
const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" });
const now = () => Date.now() / 1000 + clockOffset;

function make(tag, className, text, ...children) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = text;
  node.append(...children);
  return node;
}

function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

function setAttribute(node, name, value) {
  if (value === null) node.removeAttribute(name);
  else if (node.getAttribute(name) !== value) node.setAttribute(name, value);
}

// The relay passes on bytes beyond ASCII one by one. Mostly they were UTF-8.
function readable(text) {
  if (!/[\x80-\xff]/.test(text)) return text;
  try {
    return new TextDecoder("utf-8", { fatal: true }).decode(Uint8Array.from(text, (c) => c.charCodeAt(0)));
  } catch {
    return text;
  }
}

function bytesText(bytes) {
  if (bytes < 1000) return `${bytes} B`;
  let value = bytes, unit = -1;
  do {
    value /= 1000;
    ++unit;
  } while (value >= 999.5);
  return `${value < 9.95 ? value.toFixed(1) : Math.round(value)} ${"kMGTPE"[unit]}B`;
}

const rateText = (rate) => `${bytesText(rate)}/s`;

function spanText(seconds) {
  const s = Math.max(0, Math.round(seconds));
  if (s < 60) return `${s} s`;
  if (s < 3600) return `${Math.floor(s / 60)} min`;
  if (s < 2 * 86400) return `${Math.floor(s / 3600)} h`;
  return `${Math.floor(s / 86400)} days`;
}

// A text that grows older by itself.
const AGES = { age: (t) => t, ago: (t) => `${t} ago`, online: (t) => `online ${t}` };
function setAge(node, since, form) {
  setAttribute(node, "data-since", String(since));
  setAttribute(node, "data-form", form);
  setText(node, AGES[form](spanText(now() - since)));
}
function agesPass() {
  for (const node of document.querySelectorAll("[data-since]")) setAge(node, Number(node.dataset.since), node.dataset.form);
}

// Where a port of a device is reached.
function addressOf(device, port) {
  return device.path + port + "/";
}

const idInQuery = (device) => device.path.slice(1, -1);  // its bytes, escaped
const portName = (key) => readable(key).replace(/_port$/, "");
const isAway = (device) => !device.control;
const isWarned = (device) => device.alerts.length > 0;
const isKnown = (id) => devices.has(id);

// --- what the relay says ---

function devicePrepare(device) {
  device.label = readable(device.id);
  device.firmwareText = readable(device.firmware);
  device.rate = device.rate_from_device + device.rate_to_device;
  device.portList = Object.entries(device.ports).map(([key, port]) => ({ name: portName(key), port }));
  device.haystack = [device.label, device.address, device.firmwareText, readable(device.product),
    ...device.portList.flatMap(({ name, port }) => [name, String(port)]), ...device.alerts].join("\n").toLowerCase();
  return device;
}

const ORDERS = {
  name: (a, b) => collator.compare(a.label, b.label),
  streams: (a, b) => b.streams - a.streams,
  rate: (a, b) => b.rate - a.rate,
  seen: (a, b) => isAway(a) - isAway(b) || (isAway(a) ? seenAt(b) - seenAt(a) : a.since - b.since),
  firmware: (a, b) => collator.compare(a.firmwareText, b.firmwareText),
  address: (a, b) => collator.compare(a.address, b.address),
};
const seenAt = (device) => device.left ?? device.since;
const MOVING = new Set(["streams", "rate"]);

function takesPart(device) {
  const fits = { all: true, online: !isAway(device), away: isAway(device), warned: isWarned(device) }[view.which];
  return fits && view.words.every((word) => device.haystack.includes(word));
}

function takeList(said) {
  clockOffset = said.now - Date.now() / 1000;
  whole = said;
  hasAll = true;
  const known = new Set(said.all ? said.devices.map((each) => each.id) : []);
  if (said.all) {
    for (const id of [...devices.keys()]) {
      if (!known.has(id)) devices.delete(id);
    }
    isDirty = true;
  }
  for (const each of said.devices) {
    const device = devicePrepare(each), before = devices.get(device.id);
    devices.set(device.id, device);
    const moved = !before || before.haystack !== device.haystack || ORDERS[view.order](before, device) !== 0 ||
      isAway(before) !== isAway(device);
    isDirty = isDirty || moved;
    if (rows.has(device.id)) rowFill(rows.get(device.id), device);
  }
  showWhole();
  listRefresh(said.all);
  if (said.all) detailsWatch();
}

// --- the relay as a whole ---

function showWhole() {
  let away = 0, streams = 0, rateIn = 0, rateOut = 0, totalIn = whole.forgotten_from_device, totalOut = whole.forgotten_to_device;
  for (const device of devices.values()) {
    away += isAway(device) ? 1 : 0;
    streams += device.streams;
    rateIn += device.rate_from_device;
    rateOut += device.rate_to_device;
    totalIn += device.bytes_from_device;
    totalOut += device.bytes_to_device;
  }
  const online = devices.size - away;
  setText($("online"), `${online.toLocaleString()} online`);
  setText($("away"), away ? `${away.toLocaleString()} away` : devices.size ? "none away" : "");
  setText($("users"), whole.users.toLocaleString());
  setText($("refused"), `${streams.toLocaleString()} ${streams === 1 ? "stream" : "streams"}${whole.users_refused ? `, ${whole.users_refused.toLocaleString()} turned away` : ""}`);
  setText($("rate"), rateText(rateIn + rateOut));
  showBoth($("rates"), rateText(rateIn), rateText(rateOut));
  setText($("total"), bytesText(totalIn + totalOut));
  showBoth($("totals"), bytesText(totalIn), bytesText(totalOut));
  setAge($("uptime"), whole.started, "age");
  setText($("started"), `since ${new Date(whole.started * 1000).toLocaleString(undefined, { dateStyle: "medium", timeStyle: "short" })}`);
  setText($("version"), whole.version);
  $("empty").hidden = devices.size > 0;
  $("devices").hidden = devices.size === 0;
  if (devices.size === 0) showCommand();
  showAlerts();
  document.title = `${[...devices.values()].some(isWarned) ? "(!) " : ""}${online} of ${devices.size} online, gwrelay`;
}

// Both directions; arrows come from the style.
function showBoth(node, fromBoxes, toBoxes) {
  setText(node.children[0].lastChild, fromBoxes);
  setText(node.children[1].lastChild, toBoxes);
}

function showCommand() {
  const host = location.hostname, isHere = host === "localhost" || host === "127.0.0.1" || host === "[::1]";
  const port = whole.manager_port === 9999 ? "" : ` -p ${whole.manager_port}`;
  setText($("command"), isHere ? `mkdir -p /tmp/my-box/tmp\ngwad -r localhost${port} -i lo -I my-box -H /tmp/my-box`
    : `gwad -r ${host}${port} -i br-lan -H /opt/gwad -b`);
  setText($("hint"), isHere ? "For a box elsewhere, start gwrelay with --listen and --announce, and name this machine behind -r."
    : "-i is the box's own network, -H a folder with tmp/ in it.");
}

let alertsShown = "";
function showAlerts() {
  const alerts = [...devices.values()].filter(isWarned).sort(ORDERS.name)
    .flatMap((device) => device.alerts.map((kind) => ({ device, kind })));
  const key = JSON.stringify(alerts.map(({ device, kind }) => [device.id, kind]));
  if (key === alertsShown) return;
  alertsShown = key;
  $("alerts").hidden = alerts.length === 0;
  const items = alerts.slice(0, ALERTS_SHOWN).map(({ device, kind }) => {
    const button = make("button", "", device.label);
    button.type = "button";
    button.addEventListener("click", () => deviceShow(device.id));
    return make("li", "", null, make("span", "", null, button, ALERTS[kind]?.[1] ?? kind));
  });
  if (alerts.length > ALERTS_SHOWN) {
    const button = make("button", "", `All ${alerts.length}`);
    button.type = "button";
    button.addEventListener("click", () => choose("warned"));
    items.push(make("li", "", null, make("span", "", null, button)));
  }
  $("alerts").firstElementChild.replaceChildren(...items);
}

// --- the list ---

// What moves all the time is put in order now and then, and never below somebody's pointer.
function listRefresh(atOnce) {
  if (!isDirty) return;
  const inUse = $("rows").matches(":hover") || $("rows").contains(document.activeElement);
  if (!atOnce && MOVING.has(view.order) && (inUse || Date.now() - listedAt < REORDER_MS)) return;
  isDirty = false;
  listedAt = Date.now();
  const sign = view.descending ? -1 : 1, order = ORDERS[view.order];
  listed = [...devices.values()].filter(takesPart).sort((a, b) => sign * order(a, b) || ORDERS.name(a, b)).map((each) => each.id);
  listShow();
}

function listShow() {
  const focused = document.activeElement;
  let at = $("rows").firstChild;
  const place = (node) => {
    if (node === at) at = at.nextSibling;
    else $("rows").insertBefore(node, at);
  };
  const inWindow = new Set(listed.slice(0, view.window));
  for (const [id, row] of rows) {
    if (!inWindow.has(id)) {
      if (row.detail?.node === at || row.node === at) at = (row.detail?.node ?? row.node).nextSibling;
      row.node.remove();
      row.detail?.node.remove();
      rows.delete(id);
    }
  }
  let index = 2;
  for (const id of inWindow) {
    const row = rows.get(id) ?? rowMake(devices.get(id));
    setAttribute(row.node, "aria-rowindex", String(index++));
    place(row.node);
    if (row.detail) place(row.detail.node);
  }
  if (focused !== document.activeElement && focused.isConnected) focused.focus({ preventScroll: true });
  const all = devices.size.toLocaleString();
  setText($("count"), listed.length === devices.size ? `${all} ${devices.size === 1 ? "device" : "devices"}` : `${listed.length.toLocaleString()} of ${all} devices`);
  $("none").hidden = listed.length > 0;
  $("more").hidden = listed.length <= view.window;
  setAttribute(document.querySelector("#devices > table"), "aria-rowcount", String(listed.length + 1));
}

function listAgain() {
  view.window = WINDOW;
  isDirty = true;
  listRefresh(true);
}

function listGrow() {
  if (view.window < listed.length) {
    view.window += WINDOW;
    listShow();
  }
}

// --- a row ---

const SVG = "http://www.w3.org/2000/svg";
const COLUMNS = ["name", "open", "streams", "rate", "seen", "firmware", "address"];

function cell(className) {
  const node = make("td", className);
  node.setAttribute("role", "cell");
  return node;
}

function rowMake(device) {
  const row = { node: make("tr", "row"), cells: {}, id: device.id, detail: null };
  row.node.setAttribute("role", "row");
  for (const column of COLUMNS) {
    row.cells[column] = cell(column);
    row.node.append(row.cells[column]);
  }
  row.state = make("span", "sr");
  row.fold = make("button");
  row.fold.type = "button";
  row.tags = make("span");
  row.cells.name.append(make("div", "who", null, make("span", "dot"), row.fold, row.tags, row.state));
  row.svg = document.createElementNS(SVG, "svg");
  row.svg.setAttribute("viewBox", "0 0 59 24");
  row.svg.setAttribute("preserveAspectRatio", "none");
  row.svg.setAttribute("aria-hidden", "true");
  row.area = row.svg.appendChild(document.createElementNS(SVG, "path"));
  row.line = row.svg.appendChild(document.createElementNS(SVG, "path"));
  row.area.setAttribute("class", "area");
  row.rate = make("span");
  row.cells.rate.append(make("div", "flow", null, row.svg, row.rate));
  rows.set(device.id, row);
  rowFill(row, device);
  if (unfolded.has(device.id)) detailMake(row);
  setAttribute(row.fold, "aria-expanded", String(unfolded.has(device.id)));
  return row;
}

function rowFill(row, device) {
  const away = isAway(device), warned = isWarned(device);
  const className = `row${away ? " away" : ""}${warned ? " warned" : ""}`;
  if (row.node.className !== className) row.node.className = className;
  setText(row.fold, device.label);
  setAttribute(row.fold, "title", device.label);
  setText(row.state, away ? "away" : "online");
  setAge(row.cells.seen, away ? seenAt(device) : device.since, away ? "ago" : "online");
  setText(row.cells.streams, device.streams ? String(device.streams) : away ? "" : "0");
  row.cells.streams.classList.toggle("zero", device.streams === 0);
  setText(row.rate, device.rate ? rateText(device.rate) : away ? "" : "idle");
  row.rate.classList.toggle("zero", device.rate === 0);
  setText(row.cells.firmware, device.firmwareText);
  setAttribute(row.cells.firmware, "title", device.firmwareText);
  setText(row.cells.address, device.address);
  if (row.graph !== device.graph) graphFill(row, device.graph);
  const parts = JSON.stringify([device.ports, device.alerts, device.path]);
  if (row.parts !== parts) {
    row.parts = parts;
    row.tags.replaceChildren(...device.alerts.map((kind) => make("span", "tag", ALERTS[kind]?.[0] ?? kind)));
    row.cells.open.replaceChildren(...device.portList.map((each) => openLink(device, each)));
  }
}

function openLink(device, { name, port }) {
  const link = make("a", "link", `${name} `, make("small", "", String(port)));
  link.href = addressOf(device, port);
  link.target = "_blank";
  link.rel = "noopener";
  link.setAttribute("aria-label", `Open ${name}, port ${port} of ${device.label}`);
  return link;
}

// A character a step: '-' is nothing, the others count thirds of an octave above 64 bytes a second.
// The root makes room for the small beside the large.
function graphFill(row, graph) {
  row.graph = graph;
  if (!graph) {
    row.line.setAttribute("class", "line still");
    row.line.setAttribute("d", "M0 23H59");
    row.area.removeAttribute("d");
    return;
  }
  const rates = Array.from(graph, (c) => (c === "-" ? 0 : 64 * 2 ** ((c.charCodeAt(0) - 48) / 3)));
  const top = Math.max(...rates, 8192);
  const points = rates.map((rate, i) => `${i} ${(23 - 21 * Math.sqrt(rate / top)).toFixed(1)}`);
  row.line.setAttribute("class", "line");
  row.line.setAttribute("d", `M${points.join("L")}`);
  row.area.setAttribute("d", `M0 24L${points.join("L")}L59 24Z`);
}

// --- an unfolded device ---

function fold(id) {
  const row = rows.get(id);
  if (unfolded.delete(id)) {
    row?.detail?.node.remove();
    if (row) row.detail = null;
    details.delete(id);
  } else {
    unfolded.add(id);
    if (row) {
      detailMake(row);
      row.node.after(row.detail.node);
    }
  }
  if (row) setAttribute(row.fold, "aria-expanded", String(unfolded.has(id)));
  const device = unfolded.has(id) ? devices.get(id) : [...unfolded].filter(isKnown).map((each) => devices.get(each)).at(-1);
  history.replaceState(null, "", device ? `#device=${idInQuery(device)}` : location.pathname);
  detailsWatch();
}

function deviceShow(id) {
  if (!listed.slice(0, view.window).includes(id)) {
    view.which = "all";
    view.words = [];
    $("search").value = "";
    choiceShow();
    listAgain();
    while (isKnown(id) && !rows.has(id) && view.window < listed.length) listGrow();
  }
  if (!unfolded.has(id)) fold(id);
  rows.get(id)?.node.scrollIntoView({ block: "center" });
  rows.get(id)?.fold.focus({ preventScroll: true });
}

function section(title) {
  const body = make("div");
  const node = make("section", "", null, make("h3", "", title), body);
  return { node, body, heading: node.firstChild };
}

function detailMake(row) {
  const td = cell("");
  td.colSpan = COLUMNS.length;
  const detail = { node: make("tr", "detail", null, td), streams: new Map() };
  detail.node.setAttribute("role", "row");
  detail.node.id = `detail-${++detailMake.count}`;
  row.fold.setAttribute("aria-controls", detail.node.id);
  detail.about = section("About");
  detail.connections = section("Data connections");
  detail.streamPart = section("Streams");
  detail.events = section("Recent events");
  detail.port = portForm(row.id);
  detail.about.node.append(detail.port);
  detail.streamPart.body.className = detail.connections.body.className = "scroll";
  detail.tableBody = make("tbody");
  detail.table = make("table", "", null, headOf([["User"], ["Port", "number"], ["Request"], ["Age", "number"],
    ["Rate", "number"], ["From box", "number"], ["To box", "number"], ["", "last"]]), detail.tableBody);
  detail.table.hidden = true;
  detail.noStreams = make("p", "zero", "None.");
  detail.streamPart.body.append(detail.table, detail.noStreams);
  td.append(make("div", "inside", null, make("div", "", null, detail.about.node),
    make("div", "", null, detail.streamPart.node, detail.connections.node, detail.events.node)));
  row.detail = detail;
  if (details.has(row.id)) detailFill(detail, details.get(row.id));
}
detailMake.count = 0;

function headOf(columns) {
  return make("thead", "", null, make("tr", "", null, ...columns.map(([title, className]) => {
    const node = make("th", className, title);
    node.scope = "col";
    return node;
  })));
}

// A port that nobody has announced.
function portForm(id) {
  const input = make("input"), button = make("button", "small", "Open");
  Object.assign(input, { type: "number", min: 1, max: 65534, placeholder: "Port" });
  input.setAttribute("aria-label", "Another port");
  button.type = "button";
  const open = () => {
    const port = Number(input.value);
    if (Number.isInteger(port) && port >= 1 && port <= 65534 && isKnown(id)) {
      window.open(addressOf(devices.get(id), port), "_blank", "noopener");
    }
  };
  button.addEventListener("click", open);
  input.addEventListener("keydown", (event) => event.key === "Enter" && open());
  return make("div", "port", null, input, button);
}

// Makes a part anew when what it shows has changed.
function refill(part, shown, fill) {
  const key = JSON.stringify(shown);
  if (part.key !== key) {
    part.key = key;
    part.body.replaceChildren(...fill());
  }
}

function detailFill(detail, device) {
  const traffic = `${bytesText(device.bytes_from_device)} from it, ${bytesText(device.bytes_to_device)} to it`;
  refill(detail.about, [device.info, device.dlna_status, traffic, device.bytes_waiting, device.streams_cut, device.address], () => [aboutList(device, traffic)]);
  refill(detail.connections, device.connections.map((link) => ({ ...link, streams: link.streams.length })), () => connectionsTable(device));
  refill(detail.events, device.events, () => [eventsList(device.events)]);
  streamsFill(detail, device);
}

function aboutList(device, traffic) {
  const list = make("dl");
  const put = (label, value) => list.append(make("dt", "", label), value instanceof Node ? make("dd", "", null, value) : make("dd", "", value));
  const keys = Object.keys(LABELS).filter((key) => key in device.info);
  for (const key of [...keys, ...Object.keys(device.info).filter((each) => !(each in LABELS))]) {
    const value = device.info[key];
    put(LABELS[key] ?? readable(key), readable(value) || "(empty)");
  }
  put("Comes from", device.address || "unknown");
  put("Relayed", traffic);
  put("Waits for users", bytesText(device.bytes_waiting));
  put("Streams cut", String(device.streams_cut));
  if (device.dlna_status !== null) put("DLNA status", `0x${device.dlna_status.toString(16)}`);
  const echo = make("a", "", "echo");
  echo.href = device.path + DAEMON_ECHO;
  put("The daemon itself", echo);
  return list;
}

function connectionsTable(device) {
  if (device.connections.length === 0) return [make("p", "zero", isAway(device) ? "None: the device is away." : "None.")];
  const body = make("tbody");
  device.connections.forEach((link) => {
    const age = make("td", "number");
    setAge(age, link.since, "age");
    body.append(make("tr", "", null, make("td", "", link.address), make("td", "", null, link.held_back ? make("span", "tag", "held back") : "up"), age,
      make("td", "number", String(link.streams.length)), make("td", "number", String(link.kept.length)),
      make("td", "number", bytesText(link.bytes_from_device)), make("td", "number", bytesText(link.bytes_to_device)),
      make("td", "number", bytesText(link.bytes_waiting))));
  });
  return [make("table", "", null, headOf([["From"], ["State"], ["Age", "number"], ["Streams", "number"], ["Kept", "number"],
    ["From box", "number"], ["To box", "number"], ["Waiting", "number"]]), body)];
}

function eventsList(events) {
  if (events.length === 0) return make("p", "zero", "None since the relay has started.");
  return make("ul", "events", null, ...events.toReversed().map((each) => {
    const time = make("time");
    time.dateTime = new Date(each.at * 1000).toISOString();
    time.title = new Date(each.at * 1000).toLocaleString();
    setAge(time, each.at, "ago");
    const times = each.times > 1 ? ` (${each.times} times)` : "";
    return make("li", "", null, time, make("span", "", each.kind), make("span", "what", readable(each.text) + times));
  }));
}

function streamsFill(detail, device) {
  const streams = device.connections.flatMap((link) => link.streams).sort((a, b) => a.number - b.number);
  const there = new Set(streams.map((each) => each.number));
  for (const [number, nodes] of detail.streams) {
    if (!there.has(number)) {
      nodes.row.remove();
      detail.streams.delete(number);
    }
  }
  for (const stream of streams) {
    let nodes = detail.streams.get(stream.number);
    if (!nodes) {
      nodes = streamMake(device, stream);
      detail.streams.set(stream.number, nodes);
      detail.tableBody.append(nodes.row);
    }
    setText(nodes.port, String(stream.port));
    setText(nodes.request, readable(stream.request));
    setAge(nodes.age, stream.since, "age");
    setText(nodes.rate, rateText(stream.rate));
    setText(nodes.from, bytesText(stream.bytes_from_device));
    setText(nodes.to, bytesText(stream.bytes_to_device));
  }
  detail.table.hidden = streams.length === 0;
  detail.noStreams.hidden = streams.length > 0;
  setText(detail.streamPart.heading, streams.length ? `Streams (${streams.length})` : "Streams");
}

function streamMake(device, stream) {
  const nodes = { port: make("td", "number"), request: make("td", "request"), age: make("td", "number"),
    rate: make("td", "number"), from: make("td", "number"), to: make("td", "number") };
  const close = make("button", "small", "Close");
  close.type = "button";
  close.setAttribute("aria-label", `Close the stream of ${stream.user}`);
  close.addEventListener("click", () => streamClose(close, device, stream.number));
  nodes.row = make("tr", "", null, make("td", "", stream.user), nodes.port, nodes.request, nodes.age, nodes.rate,
    nodes.from, nodes.to, make("td", "last", null, close));
  return nodes;
}

async function streamClose(button, device, number) {
  button.disabled = true;
  button.textContent = "Closing";
  try {
    const answer = await fetch(`/close-stream?device=${idInQuery(device)}&user=${number}`, { method: "POST" });
    if (!answer.ok && answer.status !== 404) throw new Error(await answer.text());
  } catch (failed) {
    button.disabled = false;
    button.textContent = "Try again";
    button.title = failed.message;
  }
}

// --- the wire ---

let rests = false;  // while nobody looks
let hideTimer = 0;

// One source of events that comes back by itself.
function watcher(take) {
  let source = null, address = "", heardAt = 0, retry = 0;
  const open = () => {
    clearTimeout(retry);
    source?.close();
    source = null;
    if (!address || rests) return;
    heardAt = Date.now();
    source = new EventSource(address);
    const heard = (event) => {
      heardAt = Date.now();
      state("live");
      if (event.type !== "alive") take(JSON.parse(event.data));
    };
    for (const type of ["list", "device", "alive"]) source.addEventListener(type, heard);
    source.onerror = () => {
      state("lost");
      if (source.readyState === EventSource.CLOSED) retry = setTimeout(open, 3000);
    };
  };
  return {
    set(wanted) {
      if (wanted !== address) {
        address = wanted;
        open();
      }
    },
    open,
    close() {
      clearTimeout(retry);
      source?.close();
      source = null;
    },
    check() {
      if (source && Date.now() - heardAt > SILENCE_MS) {
        state("lost");
        open();
      }
    },
  };
}

const STATES = { waiting: "Connecting", live: "Live", lost: "Reconnecting" };
function state(what) {
  if ($("live").dataset.state === what) return;
  $("live").dataset.state = what;
  $("live").textContent = STATES[what];
  document.body.classList.toggle("stale", what === "lost");
}

const listWatcher = watcher(takeList);
const detailWatcher = watcher((said) => {
  const id = said.device.id;
  if (!unfolded.has(id)) return;
  details.set(id, said.device);
  const detail = rows.get(id)?.detail;
  if (detail) detailFill(detail, said.device);
});

function detailsWatch() {
  const ids = [...unfolded].filter(isKnown).map((id) => `device=${idInQuery(devices.get(id))}`);
  detailWatcher.set(ids.length ? `/status.events?${ids.join("&")}` : "");
  if (!ids.length) detailWatcher.close();
}

document.addEventListener("visibilitychange", () => {
  clearTimeout(hideTimer);
  if (document.hidden) {
    hideTimer = setTimeout(() => {
      rests = true;
      listWatcher.close();
      detailWatcher.close();
    }, HIDDEN_MS);
  } else if (rests) {
    rests = false;
    listWatcher.open();
    detailWatcher.open();
  }
});

// --- hands and keys ---

function choiceShow() {
  for (const button of document.querySelectorAll("[data-which]")) {
    setAttribute(button, "aria-pressed", String(button.dataset.which === view.which));
  }
}

function choose(which) {
  view.which = which;
  choiceShow();
  listAgain();
}

// The direction that somebody wants first is the one of ORDERS: the most streams, the last seen.
function sortBy(order) {
  view.descending = view.order === order && !view.descending;
  view.order = order;
  $("order").value = order;
  sortShow();
  listAgain();
}

function sortShow() {
  for (const head of document.querySelectorAll("[data-order]")) {
    const down = view.descending !== MOVING.has(head.dataset.order);
    setAttribute(head, "aria-sort", head.dataset.order === view.order ? (down ? "descending" : "ascending") : null);
  }
}

let searchFrame = 0;
$("search").addEventListener("input", () => {
  cancelAnimationFrame(searchFrame);
  searchFrame = requestAnimationFrame(() => {
    view.words = $("search").value.toLowerCase().split(/\s+/).filter(Boolean);
    listAgain();
  });
});
for (const button of document.querySelectorAll("[data-which]")) button.addEventListener("click", () => choose(button.dataset.which));
for (const head of document.querySelectorAll("[data-order]")) head.firstElementChild.addEventListener("click", () => sortBy(head.dataset.order));
$("order").addEventListener("change", () => sortBy($("order").value));
$("more").firstElementChild.addEventListener("click", listGrow);
new IntersectionObserver((seen) => seen.some((each) => each.isIntersecting) && listGrow(), { rootMargin: "600px" }).observe($("more"));

$("rows").addEventListener("click", (event) => {
  const row = event.target.closest(".row");
  const onName = event.target.closest(".who button");
  if (!row || (!onName && event.target.closest("a, button, input")) || (!onName && String(getSelection()))) return;
  for (const [id, each] of rows) {
    if (each.node === row) return fold(id);
  }
});

// The arrows go from one device to the next.
$("rows").addEventListener("keydown", (event) => {
  const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
  if (!step || !event.target.matches(".who button")) return;
  const names = [...$("rows").querySelectorAll(".who button")];
  const next = names[names.indexOf(event.target) + step];
  if (next) {
    event.preventDefault();
    next.focus();
  }
});

document.addEventListener("keydown", (event) => {
  const typing = event.target.closest("input, select, textarea");
  if (event.key === "/" && !typing && !event.ctrlKey && !event.metaKey && !event.altKey) {
    event.preventDefault();
    $("search").focus();
  } else if (event.key === "Escape" && event.target === $("search")) {
    $("search").value = "";
    $("search").dispatchEvent(new Event("input"));
  }
});

$("copy").addEventListener("click", async () => {
  let copied = true;
  try {
    await navigator.clipboard.writeText($("command").textContent);
  } catch {  // only pages over TLS and of this machine may
    getSelection().selectAllChildren($("command"));
    copied = document.execCommand("copy");
  }
  $("copy").textContent = copied ? "Copied" : "Selected";
  setTimeout(() => { $("copy").textContent = "Copy"; }, 2000);
});

setInterval(() => {
  agesPass();
  if (hasAll) listRefresh(false);
  listWatcher.check();
  detailWatcher.check();
}, 1000);

// The device in the address, once it is known.
const wanted = /^#device=(.+)$/.exec(location.hash)?.[1];
const wantedTimer = wanted ? setInterval(() => {
  const device = [...devices.values()].find((each) => idInQuery(each) === wanted);
  if (device) deviceShow(device.id);
  if (hasAll) clearInterval(wantedTimer);
}, 100) : 0;

sortShow();
listWatcher.set("/status.events");
