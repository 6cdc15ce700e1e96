// The relay's page: what comes from the relay, and what comes from hands and keys.
"use strict";

const SILENCE_MS = 40000;       // the relay says something every 15 s
const HIDDEN_MS = 20000;        // nobody looks: the browser has few connections to one host

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
