// An unfolded device: what it says of itself, its streams, its connections, and what has happened.
"use strict";

const MAINTENANCE_PORT = 10010;
const DAEMON_ECHO = MAINTENANCE_PORT + "/?x-qv-gwad-opt=echo";
const LABELS = { deviceid: "Id", fwver: "Firmware", prover: "Product version", component: "Component", terminal: "Terminal",
  mac: "MAC", ip: "Address at home" };

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
