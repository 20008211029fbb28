// Operator's monitor: who is on the intercom and how well they are heard, and the operator's
// actions.
// The server pushes a full snapshot twice a second; the page only ever draws the latest, and of it
// only what changed: at a full crew most rows repeat, and an untouched row costs no layout.

import { PATHS } from "../shared/constants.js";
import { Connection, renderBanner } from "../shared/connection.js";
import { bindActions, rowActions, updateActions } from "./actions.js";
import { changedCells, countsOf, DEFAULT_SORT, filterRows, rowOf, sortRows } from "./crew.js";
import { clock, num, upFor } from "./format.js";

const DEAD_MS = 4000; // snapshots come at least twice a second: this much silence is a dead link
const LOG_MAX = 50;
// A log entry's "ago" is in whole seconds and the snapshots come apart: the same line this close
// in time is the same entry.
const SAME_ENTRY_MS = 2 * 1000;
const FLOOR_DBFS = -60; // the level meter's empty end

const $ = (id) => document.getElementById(id);
const s = {
  snapshot: null, refused: "", queueKey: "",
  log: [], // { at, line, li }, oldest first
  rows: new Map(), // id -> { tr, cells, model }: every joined member's row, shown or filtered out
  shown: [], // the rows in the table, in order
  sort: { ...DEFAULT_SORT }, filter: "",
};

// Why the server refuses the feed, when it does: a browser's WebSocket never tells, so the same
// path is asked for once more as a plain request, whose status does.
const REFUSED = {
  401: "The operator password is needed: reload the page to give it.",
  429: "Too many wrong passwords: wait a minute, then reload.",
  503: "The server cannot read its operator password: see its console.",
};
async function whyRefused() {
  try {
    const answer = await fetch(PATHS.monitorFeed, { method: "HEAD", cache: "no-store" });
    s.refused = REFUSED[answer.status] ?? "";
  } catch {
    s.refused = "";
  }
  renderConn();
}

const link = new Connection(PATHS.monitorFeed, {
  deadMs: DEAD_MS, checkEveryMs: 1000,
  liveOnOpen: false, // live from the first good snapshot: an open socket that says nothing is not
  onMessage: (data) => {
    let snap;
    try { snap = JSON.parse(data); } catch { return; } // keep showing the last good one
    if (!snap || typeof snap !== "object") return;
    link.live();
    s.refused = "";
    s.snapshot = snap;
    render(snap);
  },
  onChange: renderConn,
  onLost: whyRefused,
});

// Writes only what changed: snapshots mostly repeat, and untouched nodes cost nothing.
function setText(el, text) {
  if (el.textContent !== text) el.textContent = text;
}
function setClass(el, name) {
  if (el.className !== name) el.className = name;
}

// --- Screen ---

function renderConn() {
  const { connected, everConnected } = link;
  renderBanner($("banner"), link);
  if (s.refused && !connected) {
    $("banner").hidden = false;
    setText($("banner"), s.refused);
  }
  const conn = $("conn");
  setText(conn, connected ? "Live" : s.refused ? "Refused" : everConnected ? "Reconnecting…" : "Connecting…");
  setClass(conn, "conn " + (connected ? "ok" : "bad"));
  document.body.classList.toggle("stale", !connected && everConnected);
}

function render(snap) {
  renderConn();
  const peers = Array.isArray(snap.peers) ? snap.peers.filter((p) => p && typeof p === "object") : [];
  const channels = Array.isArray(snap.channels) ? snap.channels.map(String) : [];
  const show = String(snap.show ?? "Parlavox");
  setText($("show"), show);
  if (document.title !== `${show} monitor`) document.title = `${show} monitor`;
  setText($("uptime"), upFor(snap.uptime));
  updateRows(peers, channels);
  const counts = countsOf([...s.rows.values()].map((r) => r.model));
  const unjoined = num(snap.unjoined) ?? 0;
  setText($("counts"), `${counts.joined} joined · ${counts.talking} talking · ` +
    `${counts.warnings} ${counts.warnings === 1 ? "link" : "links"} with warnings` +
    (unjoined > 0 ? ` · ${unjoined} connecting` : ""));
  $("counts").classList.toggle("warn", counts.warnings > 0);
  arrange();
  renderAnnouncements(snap);
  updateActions(snap);
  renderLog(snap.log);
}

// --- Crew table ---

function makeRow(peer) {
  const tr = $("peer-row").content.firstElementChild.cloneNode(true);
  tr.dataset.peerId = String(peer.id);
  const q = (sel) => tr.querySelector(sel);
  // The actions are made once, with the row: they act on the member, who keeps their id.
  const actions = rowActions(peer);
  if (actions) q(".actions").append(actions);
  return {
    tr, model: null,
    cells: {
      cover: q(".cover"), meter: q(".meter"), name: q(".name"), role: q(".role"), health: q(".health"),
      badge: q(".badge"), channels: q(".channels"), loss: q(".loss"), jitter: q(".jitter"), seen: q(".seen"),
    },
  };
}

function chip({ name, mode }) {
  const span = document.createElement("span");
  span.className = `chip ${mode}`;
  span.textContent = name;
  return span;
}

// What each changed cell does to the row; cells not named here change nothing on their own.
const WRITE = {
  talking: (r, m) => {
    r.tr.dataset.talking = String(m.talking);
    r.tr.classList.toggle("talking", m.talking);
  },
  // -60..0 dBFS across the bar; the cover shrinks from the right as the level rises.
  level: (r, m) => {
    const db = m.cells.level;
    const level = db === null ? 0 : Math.min(1, Math.max(0, (db - FLOOR_DBFS) / -FLOOR_DBFS));
    r.cells.cover.style.transform = `scaleX(${(1 - level).toFixed(3)})`;
    r.cells.meter.title = db === null ? "silent" : `${db} dBFS`;
  },
  name: (r, m) => setText(r.cells.name, m.name),
  role: (r, m) => {
    setText(r.cells.role, m.role);
    r.cells.role.title = m.role; // a long one is cut short on screen
  },
  health: (r, m) => {
    setText(r.cells.health, m.cells.health);
    setClass(r.cells.health, `health ${["ok", "warn", "bad"][m.rank]}`);
    r.tr.classList.toggle("trouble", m.rank === 2);
    r.tr.dataset.link = ["ok", "warn", "bad"][m.rank];
  },
  via: (r, m) => setText(r.cells.badge, m.cells.via),
  transport: (r, m) => setClass(r.cells.badge, `badge ${m.cells.transport}`),
  chips: (r, m) => r.cells.channels.replaceChildren(...m.chips.map(chip)),
  channelsTitle: (r, m) => (r.cells.channels.title = m.cells.channelsTitle),
};
for (const name of ["loss", "jitter", "seen"]) {
  WRITE[name] = (r, m) => setText(r.cells[name], m.cells[name]);
  WRITE[`${name}Grade`] = (r, m) => setClass(r.cells[name], `c-${name} num ${name} ${m.cells[`${name}Grade`]}`);
}

// Keeps a row per joined member, each touched only where its cells changed.
function updateRows(peers, channels) {
  const seen = new Set();
  for (const peer of peers) {
    const model = rowOf(peer, channels);
    seen.add(model.id);
    let row = s.rows.get(model.id);
    if (!row) s.rows.set(model.id, (row = makeRow(peer)));
    for (const key of changedCells(row.model?.cells, model.cells)) WRITE[key]?.(row, model);
    row.model = model;
  }
  for (const [id, row] of s.rows) {
    if (!seen.has(id)) {
      row.tr.remove();
      s.rows.delete(id);
    }
  }
}

// Puts the rows the filter keeps in the sort's order, moving only those out of place.
function arrange() {
  const all = [...s.rows.values()];
  const byModel = new Map(all.map((r) => [r.model, r]));
  const shown = sortRows(filterRows(all.map((r) => r.model), s.filter), s.sort).map((m) => byModel.get(m));
  $("no-crew").hidden = all.length > 0;
  setText($("shown"), s.filter.trim() ? `${shown.length} of ${all.length}` : "");
  if (shown.length === s.shown.length && shown.every((r, i) => r === s.shown[i])) return;
  const keep = new Set(shown);
  for (const r of s.shown) if (!keep.has(r)) r.tr.remove();
  const body = $("crew");
  // From the end: each row goes before the one that must follow it, so a row that moved costs
  // one move, not one for every row after it.
  let next = null;
  for (let i = shown.length - 1; i >= 0; i--) {
    const tr = shown[i].tr;
    if (tr.parentNode !== body || tr.nextSibling !== next) body.insertBefore(tr, next);
    next = tr;
  }
  s.shown = shown;
}

function renderSort() {
  for (const button of document.querySelectorAll("th button[data-sort]")) {
    const th = button.parentElement;
    if (button.dataset.sort === s.sort.column) th.setAttribute("aria-sort", s.sort.descending ? "descending" : "ascending");
    else th.removeAttribute("aria-sort");
  }
}

// A header's button sorts by its column: first the way that puts what needs a look at the top
// (the worst link, the most loss, the loudest), then the other way.
const DESCENDING_FIRST = new Set(["level", "link", "loss", "jitter", "seen"]);
document.querySelector("thead").addEventListener("click", (event) => {
  const column = event.target.closest("button[data-sort]")?.dataset.sort;
  if (!column) return;
  s.sort = column === s.sort.column ? { column, descending: !s.sort.descending }
    : { column, descending: DESCENDING_FIRST.has(column) };
  renderSort();
  arrange();
});
$("filter").addEventListener("input", (event) => {
  s.filter = event.target.value;
  arrange();
});

function renderAnnouncements(snap) {
  const speaking = typeof snap.speaking === "string" && snap.speaking ? snap.speaking : null;
  $("speaking").classList.toggle("idle", !speaking);
  $("speaking-label").hidden = !speaking;
  setText($("speaking-text"), speaking ?? "No announcement");

  const queued = Array.isArray(snap.queued) ? snap.queued.map(String) : [];
  $("queue-box").hidden = queued.length === 0;
  const key = queued.join("\n");
  if (key === s.queueKey) return;
  s.queueKey = key;
  $("queue").replaceChildren(...queued.map((text) => {
    const li = document.createElement("li");
    li.textContent = text;
    return li;
  }));
}

function logLine({ at, line }) {
  const li = document.createElement("li");
  const time = document.createElement("time");
  time.dateTime = new Date(at).toISOString();
  time.textContent = clock(at);
  const text = document.createElement("span");
  text.textContent = line;
  li.append(time, text);
  return li;
}

// The log, newest first. A line seen before keeps its element and its time: times come as
// "seconds ago", which shift with each snapshot's arrival, and redrawing the lines would both
// cost a layout each time and lose a selection made to copy one. New lines only come last.
function renderLog(log) {
  const now = Date.now();
  const entries = (Array.isArray(log) ? log.slice(-LOG_MAX) : [])
    .map((e) => ({ at: now - (num(e?.ago) ?? 0) * 1000, line: String(e?.line ?? "") }));
  let j = 0;
  const kept = entries.map((e) => {
    while (j < s.log.length && !(s.log[j].line === e.line && Math.abs(s.log[j].at - e.at) < SAME_ENTRY_MS)) j++;
    return j < s.log.length ? s.log[j++] : { ...e, li: logLine(e) };
  });
  const keep = new Set(kept);
  for (const old of s.log) if (!keep.has(old)) old.li.remove();
  for (const entry of kept) if (!entry.li.isConnected) $("log").prepend(entry.li);
  s.log = kept;
}

// Hook for the automated browser test, read-only; only with ?test.
//   parlavoxMonitor.snapshot()  -> the last snapshot object as received (null before the first);
//                                  kept while reconnecting, the page then shows it dimmed
//   parlavoxMonitor.connected() -> true while the feed is live: socket open and a snapshot
//                                  received on it since it opened
//   parlavoxMonitor.order()     -> the ids of the crew rows shown, top to bottom, as strings
if (new URLSearchParams(location.search).has("test")) {
  window.parlavoxMonitor = {
    snapshot: () => s.snapshot,
    order: () => s.shown.map((r) => r.model.id),
    connected: () => link.connected,
  };
}

renderSort();
renderConn();
bindActions();
link.start();
