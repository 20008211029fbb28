// Operator's monitor: who is on the intercom and how well they are heard, and the operator's
// actions. The server pushes a full snapshot several times a second; the page only ever draws
// the latest.

import { PATHS } from "../shared/constants.js";
import { Connection, renderBanner } from "../shared/connection.js";
import { bindActions, rowActions, updateActions } from "./actions.js";
import { clock, linkFigures, list, num, transport, upFor } from "./format.js";

const DEAD_MS = 4000; // snapshots come at least twice a second: this much silence is a dead link
const LOG_MAX = 50;
const FLOOR_DBFS = -60; // the level meter's empty end

const $ = (id) => document.getElementById(id);
const s = { snapshot: null, rows: new Map(), queueKey: "", logKey: "", refused: "" };

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
  const show = String(snap.show ?? "Parlavox");
  setText($("show"), show);
  if (document.title !== `${show} monitor`) document.title = `${show} monitor`;
  setText($("uptime"), upFor(snap.uptime));
  const unjoined = num(snap.unjoined) ?? 0;
  setText($("counts"), `${peers.length} crew joined` + (unjoined > 0 ? ` · ${unjoined} connecting` : ""));
  renderCrew(peers);
  renderAnnouncements(snap);
  updateActions(snap);
  renderLog(snap.log);
}

function makeRow(id) {
  const tr = $("peer-row").content.firstElementChild.cloneNode(true);
  tr.dataset.peerId = id;
  const q = (sel) => tr.querySelector(sel);
  return {
    tr, cover: q(".cover"), meter: q(".meter"), name: q(".name"), role: q(".role"), badge: q(".badge"),
    talk: q(".talk"), listen: q(".listen"), loss: q(".loss"), jitter: q(".jitter"), seen: q(".seen"),
    actions: q(".actions"),
  };
}

function renderCrew(peers) {
  const body = $("crew");
  const ids = peers.map((p) => String(p.id));
  for (const [id, row] of s.rows) {
    if (!ids.includes(id)) {
      row.tr.remove();
      s.rows.delete(id);
    }
  }
  peers.forEach((p, i) => {
    const id = ids[i];
    let row = s.rows.get(id);
    if (!row) {
      s.rows.set(id, (row = makeRow(id)));
      row.actions.append(rowActions(p));
    }
    fillRow(row, p);
    if (body.children[i] !== row.tr) body.insertBefore(row.tr, body.children[i] ?? null);
  });
  $("no-crew").hidden = peers.length > 0;
}

function fillRow(row, p) {
  const talking = p.talking === true;
  row.tr.dataset.talking = String(talking);
  row.tr.classList.toggle("talking", talking);

  // -60..0 dBFS across the bar; the cover shrinks from the right as the level rises.
  const db = num(p.levelDbfs);
  const level = db === null ? 0 : Math.min(1, Math.max(0, (db - FLOOR_DBFS) / -FLOOR_DBFS));
  row.cover.style.transform = `scaleX(${(1 - level).toFixed(3)})`;
  row.meter.title = db === null ? "silent" : `${db.toFixed(1)} dBFS`;

  setText(row.name, String(p.name ?? ""));
  setText(row.role, String(p.role ?? ""));
  setText(row.badge, transport(p.transport));
  setClass(row.badge, `badge ${p.transport === "udp" || p.transport === "browser" ? p.transport : "other"}`);
  setText(row.talk, list(p.talk));
  setText(row.listen, list(p.listen));

  const figures = linkFigures(p);
  for (const name of ["loss", "jitter", "seen"]) {
    setText(row[name], figures[name].text);
    setClass(row[name], `num ${name} ${figures[name].grade}`);
  }
  row.tr.classList.toggle("trouble", Object.values(figures).some((f) => f.grade === "bad"));
}

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

function renderLog(log) {
  const now = Date.now();
  const entries = (Array.isArray(log) ? log.slice(-LOG_MAX) : []).reverse()
    .map((e) => ({ at: now - (num(e?.ago) ?? 0) * 1000, line: String(e?.line ?? "") }));
  // Rebuild only when the lines (or their times) differ: selecting a line to copy must survive.
  const key = entries.map((e) => `${Math.round(e.at / 1000)} ${e.line}`).join("\n");
  if (key === s.logKey) return;
  s.logKey = key;
  $("log").replaceChildren(...entries.map(({ at, line }) => {
    const li = document.createElement("li");
    const time = document.createElement("time");
    time.dateTime = new Date(at).toISOString();
    time.textContent = clock(at);
    const text = document.createElement("span");
    text.textContent = line;
    li.append(time, text);
    return li;
  }));
}

// Hook for the automated browser test, read-only; only with ?test.
//   parlavoxMonitor.snapshot()  -> the last snapshot object as received (null before the first);
//                                  kept while reconnecting, the page then shows it dimmed
//   parlavoxMonitor.connected() -> true while the feed is live: socket open and a snapshot
//                                  received on it since it opened
if (new URLSearchParams(location.search).has("test")) {
  window.parlavoxMonitor = {
    snapshot: () => s.snapshot,
    connected: () => link.connected,
  };
}

renderConn();
bindActions();
link.start();
