// Operator's monitor: a read-only view of who is on the intercom and how well they are heard.
// The server pushes a full snapshot several times a second; the page only ever draws the latest.

const DEAD_MS = 4000; // snapshots come at least twice a second: this much silence is a dead link
const LOG_MAX = 50;
const FLOOR_DBFS = -60; // the level meter's empty end

const $ = (id) => document.getElementById(id);
const s = {
  ws: null, connected: false, everConnected: false, stopped: false,
  retries: 0, retryTimer: 0, lastRx: 0,
  snapshot: null, rows: new Map(), queueKey: "", logKey: "",
};

// --- Link to the server ---

function connect() {
  clearTimeout(s.retryTimer);
  const scheme = location.protocol === "http:" ? "ws:" : "wss:";
  let ws;
  try {
    ws = new WebSocket(`${scheme}//${location.host}/monitor/events`);
  } catch {
    return retryLater();
  }
  s.ws = ws;
  s.lastRx = Date.now(); // a handshake that hangs is caught by the watchdog too
  ws.onmessage = (e) => {
    s.lastRx = Date.now();
    let snap;
    try { snap = JSON.parse(e.data); } catch { return; } // keep showing the last good one
    if (!snap || typeof snap !== "object") return;
    if (!s.connected) Object.assign(s, { connected: true, everConnected: true, retries: 0 });
    s.snapshot = snap;
    render(snap);
  };
  ws.onclose = ws.onerror = () => lost(ws);
}

function lost(ws) {
  if (!ws || ws !== s.ws) return;
  ws.onmessage = ws.onclose = ws.onerror = null;
  try { ws.close(); } catch { /* already closing */ }
  Object.assign(s, { ws: null, connected: false });
  if (s.stopped) renderConn();
  else retryLater();
}

function retryLater() {
  const delay = Math.min(5000, 500 * 2 ** s.retries);
  s.retries = Math.min(s.retries + 1, 10);
  s.retryTimer = setTimeout(connect, delay);
  renderConn();
}

// A socket can stay "open" long after the network has gone; silence is the real signal.
setInterval(() => {
  if (s.ws && Date.now() - s.lastRx > DEAD_MS) lost(s.ws);
}, 1000);

// Leaving closes the feed so the page can go into the back/forward cache; coming back reopens it.
addEventListener("pagehide", () => {
  s.stopped = true;
  clearTimeout(s.retryTimer);
  lost(s.ws);
});
addEventListener("pageshow", (e) => {
  if (!e.persisted) return;
  Object.assign(s, { stopped: false, retries: 0 });
  connect();
});

// --- Formatting ---

const pad = (n) => String(n).padStart(2, "0");
const num = (v) => (typeof v === "number" && Number.isFinite(v) ? v : null);
const list = (a) => (Array.isArray(a) && a.length ? a.map(String).join(", ") : "—");

function upFor(seconds) {
  const t = Math.max(0, Math.floor(num(seconds) ?? 0));
  const h = Math.floor(t / 3600);
  const m = Math.floor(t / 60) % 60;
  return h ? `Up ${h} h ${pad(m)} min` : m ? `Up ${m} min` : `Up ${t} s`;
}

function clock(ms) {
  const d = new Date(ms);
  return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
}

const seen = (ms) => (ms < 1000 ? "now" : `${Math.floor(ms / 1000)} s ago`);
const transport = (t) => (t === "udp" ? "UDP" : t === "browser" ? "Browser" : String(t ?? "?"));

// ok below `warnFrom`, bad above `badAbove`, warn in between; unknown counts as ok.
const grade = (v, warnFrom, badAbove) => (v === null ? "ok" : v > badAbove ? "bad" : v >= warnFrom ? "warn" : "ok");

// Writes only what changed: snapshots mostly repeat, and untouched nodes cost nothing.
function setText(el, text) {
  if (el.textContent !== text) el.textContent = text;
}
function setClass(el, name) {
  if (el.className !== name) el.className = name;
}

// --- Screen ---

function renderConn() {
  const banner = $("banner");
  banner.hidden = s.connected || (!s.everConnected && s.retries === 0);
  setText(banner, s.everConnected
    ? "Connection lost — reconnecting…" : "Cannot reach the intercom — retrying…");
  const conn = $("conn");
  setText(conn, s.connected ? "Live" : s.everConnected ? "Reconnecting…" : "Connecting…");
  setClass(conn, "conn " + (s.connected ? "ok" : "bad"));
  document.body.classList.toggle("stale", !s.connected && s.everConnected);
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
  renderLog(snap.log);
}

function makeRow(id) {
  const tr = $("peer-row").content.firstElementChild.cloneNode(true);
  tr.dataset.peerId = id;
  const q = (sel) => tr.querySelector(sel);
  return {
    tr, cover: q(".cover"), meter: q(".meter"), name: q(".name"), role: q(".role"), badge: q(".badge"),
    talk: q(".talk"), listen: q(".listen"), loss: q(".loss"), jitter: q(".jitter"), seen: q(".seen"),
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
    if (!row) s.rows.set(id, (row = makeRow(id)));
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

  // Graded on the raw values: 0.05 * 100 is not exactly 5 in floating point.
  const loss = num(p.loss);
  const jitter = num(p.jitterMs);
  const last = num(p.lastSeenMs);
  const states = [grade(loss, 0.01, 0.05), grade(jitter, 15, 40), grade(last, 3000, 6000)];
  setText(row.loss, loss === null ? "—" : `${(loss * 100).toFixed(1)} %`);
  setText(row.jitter, jitter === null ? "—" : `${jitter.toFixed(1)} ms`);
  setText(row.seen, last === null ? "—" : seen(last));
  setClass(row.loss, `num loss ${states[0]}`);
  setClass(row.jitter, `num jitter ${states[1]}`);
  setClass(row.seen, `num seen ${states[2]}`);
  row.tr.classList.toggle("trouble", states.includes("bad"));
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

// Hook for the automated browser test; read-only, so it is safe to keep in the shipped page.
//   parlavoxMonitor.snapshot()  -> the last snapshot object as received (null before the first);
//                                  kept while reconnecting, the page then shows it dimmed
//   parlavoxMonitor.connected() -> true while the feed is live: socket open and a snapshot
//                                  received on it since it opened
window.parlavoxMonitor = {
  snapshot: () => s.snapshot,
  connected: () => s.connected,
};

renderConn();
connect();
