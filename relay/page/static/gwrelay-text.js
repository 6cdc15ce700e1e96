// Texts and nodes for the relay's page. What devices say of themselves is text from strangers: it gets
// into the page by textContent alone.
"use strict";

let clockOffset = 0;  // the relay's clock minus ours, s

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

// Where a port of a device is reached: under its name, wherever this browser finds names of the
// relay's domain, those of "localhost" only on the relay's own machine.
function addressOf(device, port) {
  const here = location.hostname;
  const isHere = here === "localhost" || here.endsWith(".localhost") || here.startsWith("127.") || here === "[::1]";
  const at = whole.users_port ?? location.port, atPort = at ? `:${at}` : "";
  if (device.name && (whole.domain !== "localhost" || isHere))
    return `${location.protocol}//${device.name}--${port}.${whole.domain}${atPort}/`;
  return `${whole.users_port ? `${location.protocol}//${here}${atPort}` : ""}${device.path}${port}/`;
}

const idInQuery = (device) => device.path.slice(1, -1);  // its bytes, escaped
const portName = (key) => readable(key).replace(/_port$/, "");
const isAway = (device) => !device.control;
const isWarned = (device) => device.alerts.length > 0;
const isKnown = (id) => devices.has(id);
