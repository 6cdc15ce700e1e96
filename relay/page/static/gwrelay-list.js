// The relay's devices as a list. Only rows in the list's window exist, and only what has changed in them
// is touched, so that a thousand devices cost no more than fifty.
"use strict";

const WINDOW = 60;              // rows more each time
const REORDER_MS = 3000;        // while what the list is sorted by moves
const ALERTS_SHOWN = 4;
const ALERTS = {
  "id used twice": ["id used twice", "Two boxes log in with this id and push each other out. Give each an id of its own."],
  "no data connection": ["no data", "It has logged in, but none of its data connections has come. Can the box reach the data port?"],
  "held back": ["held back", "A user takes less than the box sends, and others may wait for him."],
};

const devices = new Map();  // by id: what the relay says, and what we have made of it
const rows = new Map();     // by id: the nodes of those in the window
const details = new Map();  // by id: what the relay says of unfolded ones
const unfolded = new Set();
const view = { which: "all", words: [], order: "name", descending: false, window: WINDOW };
let whole = {};
let listed = [];
let listedAt = 0;
let isDirty = false;
let hasAll = false;

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
  $("login").hidden = !whole.logins;
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

const CERTIFICATE_SOON_S = 14 * 86400;
const certificateAlert = () => whole.certificate_ends && whole.certificate_ends - Date.now() / 1000 < CERTIFICATE_SOON_S
  ? `The certificate ends on ${new Date(whole.certificate_ends * 1000).toLocaleDateString()}` : "";

let alertsShown = "";
function showAlerts() {
  const alerts = [...devices.values()].filter(isWarned).sort(ORDERS.name)
    .flatMap((device) => device.alerts.map((kind) => ({ device, kind })));
  const certificate = certificateAlert();
  const key = JSON.stringify([certificate, ...alerts.map(({ device, kind }) => [device.id, kind])]);
  if (key === alertsShown) return;
  alertsShown = key;
  $("alerts").hidden = alerts.length === 0 && !certificate;
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
  if (certificate) items.unshift(make("li", "", null, make("span", "", certificate)));
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
