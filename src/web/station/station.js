// Crew station: join screen, push-to-talk, crew list, and the link to the intercom server.
import { ANNOUNCER_ID, decode, encodeAudio, encodeControl } from "./protocol.js";
import { StationAudio } from "./audio.js";

const TAP_MS = 300; // a press shorter than this latches talking on
const LIT_MS = 300; // a talker stays lit this long after their last frame
const PING_MS = 2000; // the server drops anyone silent for 8 s
const DEAD_MS = 8000; // nothing heard for this long: the socket is gone even if not closed
const MAX_BUFFERED = 16000; // ~0.5 s of audio; beyond it a stalled link sheds frames, not delay
const HEARD_LEN = 16000;

const $ = (id) => document.getElementById(id);
const store = {
  get(key, fallback) {
    try { return localStorage.getItem("parlavox." + key) ?? fallback; } catch { return fallback; }
  },
  set(key, value) {
    try { localStorage.setItem("parlavox." + key, String(value)); } catch { /* private mode */ }
  },
};

const audio = new StationAudio();
const s = {
  ws: null, connected: false, everConnected: false, retries: 0, retryTimer: 0, pingTimer: 0,
  lastRx: 0, leaving: false, config: null,
  want: null, // {name, role} from the user's Join until Leave: what we rejoin as after a drop
  starting: false, joinError: "", screen: "join",
  joined: false, id: null, role: "", talkMask: 0, listenMask: 0,
  off: 0, // talk channels the user switched off
  roster: [], lastAudio: new Map(), seq: 0, sent: 0,
  held: false, latched: false, space: false, downAt: 0, unlatchPress: false, talking: false,
  heard: new Float32Array(HEARD_LEN), heardPos: 0, heardTotal: 0,
};

// --- Link to the server ---

function connect() {
  clearTimeout(s.retryTimer);
  const scheme = location.protocol === "http:" ? "ws:" : "wss:";
  let ws;
  try {
    ws = new WebSocket(`${scheme}//${location.host}/intercom`);
  } catch {
    return retryLater();
  }
  ws.binaryType = "arraybuffer";
  s.ws = ws;
  ws.onopen = () => {
    Object.assign(s, { connected: true, everConnected: true, retries: 0, lastRx: Date.now() });
    send({ t: "hi" });
    s.pingTimer = setInterval(tick, PING_MS);
    render();
  };
  ws.onmessage = (e) => {
    s.lastRx = Date.now();
    if (e.data instanceof ArrayBuffer) receive(e.data);
  };
  ws.onclose = () => lost(ws);
}

function lost(ws) {
  if (!ws || ws !== s.ws) return;
  ws.onopen = ws.onmessage = ws.onclose = null;
  try { ws.close(); } catch { /* already closing */ }
  clearInterval(s.pingTimer);
  Object.assign(s, { ws: null, connected: false, joined: false });
  stopTalking();
  render();
  if (!s.leaving) retryLater();
}

function retryLater() {
  const delay = Math.min(5000, 500 * 2 ** s.retries);
  s.retries = Math.min(s.retries + 1, 10);
  s.retryTimer = setTimeout(connect, delay);
  render();
}

function tick() {
  if (Date.now() - s.lastRx > DEAD_MS) return lost(s.ws);
  send({ t: "ping" });
}

function send(message) {
  if (s.ws?.readyState === WebSocket.OPEN) s.ws.send(encodeControl(message));
}

function sendJoin() {
  if (s.want && s.connected) send({ t: "join", name: s.want.name, role: s.want.role });
}

function receive(data) {
  const d = decode(data);
  if (!d) return;
  if (d.kind === "audio") return onAudio(d);
  const m = d.message;
  if (m.t === "config") onConfig(m);
  else if (m.t === "welcome") onWelcome(m);
  else if (m.t === "roster") {
    s.roster = Array.isArray(m.users) ? m.users.filter((u) => u && typeof u === "object") : [];
    renderRoster();
  } else if (m.t === "rejoin") {
    s.joined = false; // the server lost track of us: put ourselves back as we were
    updateTalking();
    sendJoin();
    render();
  } else if (m.t === "error") onRefused(m.reason);
}

function onConfig(m) {
  const channels = Array.isArray(m.channels) ? m.channels.map(String) : [];
  // A changed show layout would make the old switched-off bits point at other channels.
  if (s.config && s.config.channels.join("\n") !== channels.join("\n")) s.off = 0;
  s.config = { channels, roles: Array.isArray(m.roles) ? m.roles.filter((r) => r && r.name) : [] };
  fillRoles();
  sendJoin(); // back after a drop: rejoin without asking the user
  render();
}

function onWelcome(m) {
  if (!s.want) return send({ t: "bye" }); // they pressed Leave before the welcome came
  Object.assign(s, {
    joined: true, id: Number(m.id), role: String(m.role ?? s.want.role),
    talkMask: m.talkMask >>> 0, listenMask: m.listenMask >>> 0, screen: "station", joinError: "",
  });
  buildChannels();
  renderRoster();
  updateTalking(); // a press still held through a rejoin carries on
  render();
}

function onRefused(reason) {
  Object.assign(s, { want: null, joined: false, screen: "join" });
  s.joinError = String(reason || "The intercom refused to let us join.");
  stopTalking();
  render();
}

function onAudio({ sender, samples }) {
  if (!s.joined || sender === s.id) return;
  s.lastAudio.set(sender, performance.now());
  for (let i = 0; i < samples.length; i++) {
    s.heard[s.heardPos] = samples[i];
    s.heardPos = (s.heardPos + 1) % HEARD_LEN;
  }
  s.heardTotal += samples.length;
  audio.play(sender, samples);
}

// --- Talking ---

const talkChannels = () => (s.talkMask & ~s.off) >>> 0;
const canTalk = () => s.joined && s.connected && audio.hasMic;

function updateTalking() {
  const talking = canTalk() && (s.held || s.latched || s.space);
  if (talking !== s.talking) {
    s.talking = talking;
    audio.setCapturing(talking);
  }
  renderTalk();
  renderLights();
}

function stopTalking() {
  Object.assign(s, { held: false, latched: false, space: false, unlatchPress: false });
  updateTalking();
}

audio.onFrame = (frame) => {
  const mask = talkChannels();
  const ws = s.ws;
  if (!s.talking || !mask || ws?.readyState !== WebSocket.OPEN) return;
  if (ws.bufferedAmount > MAX_BUFFERED) return;
  ws.send(encodeAudio(s.id, mask, s.seq, frame));
  s.seq = (s.seq + 1) & 0xffff;
  s.sent++;
};

const ptt = $("ptt");
ptt.addEventListener("pointerdown", (e) => {
  if (e.button !== 0 || !canTalk()) return;
  e.preventDefault();
  audio.resume();
  if (s.latched) {
    s.latched = false;
    s.unlatchPress = true; // this press only releases the latch
  } else {
    s.held = true;
    s.downAt = performance.now();
  }
  updateTalking();
});
ptt.addEventListener("pointerup", () => {
  if (s.unlatchPress) {
    s.unlatchPress = false;
    return;
  }
  if (!s.held) return;
  s.held = false;
  if (performance.now() - s.downAt < TAP_MS) s.latched = true;
  updateTalking();
});
for (const type of ["pointercancel", "pointerleave"]) {
  ptt.addEventListener(type, () => {
    s.unlatchPress = false;
    if (s.held) {
      s.held = false;
      updateTalking();
    }
  });
}
ptt.addEventListener("contextmenu", (e) => e.preventDefault());

const typing = (el) => el instanceof Element && (el.isContentEditable
  || el.matches("input:not([type=range]):not([type=checkbox]), textarea, select"));

addEventListener("keydown", (e) => {
  if (e.code !== "Space" || s.screen !== "station" || typing(e.target)) return;
  e.preventDefault(); // no page scroll, and no "click" on a focused toggle
  if (e.repeat || s.space || !canTalk()) return;
  audio.resume();
  s.space = true;
  updateTalking();
});
addEventListener("keyup", (e) => {
  if (e.code !== "Space" || !s.space) return;
  e.preventDefault();
  s.space = false;
  updateTalking();
});
// A key or finger released elsewhere never reports back: never leave the mic open on a guess.
addEventListener("blur", () => {
  s.space = s.held = false;
  updateTalking();
});
document.addEventListener("visibilitychange", () => document.hidden && stopTalking());
document.addEventListener("pointerdown", () => audio.resume(), true);

// --- Join, leave, page lifecycle ---

$("join-form").addEventListener("submit", async (e) => {
  e.preventDefault();
  const name = $("name").value.trim();
  const role = $("role").value;
  if (!name || !role || s.starting) return;
  store.set("name", name);
  store.set("role", role);
  Object.assign(s, { starting: true, joinError: "" });
  render();
  try {
    await audio.start(volume());
  } catch (err) {
    Object.assign(s, { starting: false, joinError: `Audio could not start: ${err?.message || err}` });
    return render();
  }
  Object.assign(s, { starting: false, want: { name, role }, off: 0 });
  sendJoin();
  render();
});

$("leave").addEventListener("click", () => {
  send({ t: "bye" });
  Object.assign(s, { want: null, joined: false, screen: "join", roster: [] });
  stopTalking();
  render();
});

addEventListener("pagehide", () => {
  s.leaving = true;
  clearTimeout(s.retryTimer);
  if (s.joined) send({ t: "bye" });
  lost(s.ws);
});
// Back from the back/forward cache: reconnect, and rejoin if we were on.
addEventListener("pageshow", (e) => {
  if (!e.persisted) return;
  s.leaving = false;
  connect();
});

// --- Screen ---

function render() {
  const station = s.screen === "station";
  $("join-screen").hidden = station;
  $("station-screen").hidden = !station;
  const banner = $("banner");
  banner.hidden = s.connected || (!s.everConnected && s.retries === 0);
  banner.textContent = s.everConnected
    ? "Connection lost — reconnecting…" : "Cannot reach the intercom — retrying…";

  const waiting = s.want && !s.joined;
  $("join-status").textContent = !s.connected ? "Connecting…" : !s.config ? "Waiting for the show…"
    : s.starting ? "Starting audio…" : waiting ? "Joining…" : "Connected";
  $("join").disabled = !s.connected || !s.config || s.starting || Boolean(waiting);
  $("join-error").textContent = s.joinError;
  $("join-error").hidden = !s.joinError;
  showRoleInfo();

  $("me-name").textContent = s.want?.name ?? "";
  $("me-role").textContent = s.role;
  const conn = $("conn");
  conn.textContent = !s.connected ? "Reconnecting…" : s.joined ? "Connected" : "Joining…";
  conn.className = "conn " + (s.joined ? "ok" : "bad");
  $("mic-note").hidden = audio.hasMic || !audio.ctx;
  renderTalk();
}

function renderTalk() {
  ptt.disabled = !audio.hasMic;
  ptt.classList.toggle("talking", s.talking);
  ptt.classList.toggle("latched", s.talking && s.latched);
  ptt.classList.toggle("idle", !canTalk());
  ptt.setAttribute("aria-pressed", String(s.talking));
  ptt.textContent = !audio.hasMic ? "Listening only" : !s.talking ? "Hold to talk"
    : s.latched ? "Talking — tap to release" : "Talking";
  const none = s.joined && talkChannels() === 0;
  $("no-channel").hidden = !none;
  $("no-channel").classList.toggle("alert", none && s.talking);
}

function fillRoles() {
  const select = $("role");
  const keep = select.value || store.get("role", "");
  select.replaceChildren(...s.config.roles.map((r) => {
    const option = document.createElement("option");
    option.value = option.textContent = String(r.name);
    return option;
  }));
  if (s.config.roles.some((r) => String(r.name) === keep)) select.value = keep;
}

function showRoleInfo() {
  const role = s.config?.roles.find((r) => String(r.name) === $("role").value);
  const list = (a) => (Array.isArray(a) && a.length ? a.join(", ") : "nobody");
  $("role-info").textContent = role ? `Talks to ${list(role.talk)} · hears ${list(role.listen)}` : "";
}

const channelName = (i) => s.config?.channels[i] ?? `Channel ${i + 1}`;
const maskBits = (mask) => [...Array(32).keys()].filter((i) => (mask >>> i) & 1);

function buildChannels() {
  $("channels").replaceChildren(...maskBits(s.talkMask).map((i) => {
    const button = document.createElement("button");
    button.type = "button";
    button.className = "toggle";
    button.textContent = channelName(i);
    button.addEventListener("click", () => {
      s.off = (s.off ^ (1 << i)) >>> 0;
      renderChannels();
    });
    button.dataset.bit = i;
    return button;
  }));
  $("listening").replaceChildren(...maskBits(s.listenMask).map((i) => {
    const li = document.createElement("li");
    li.textContent = channelName(i);
    return li;
  }));
  renderChannels();
}

function renderChannels() {
  for (const button of $("channels").children) {
    button.setAttribute("aria-pressed", String(!((s.off >>> button.dataset.bit) & 1)));
  }
  renderTalk();
}

function row(id, name, role, you) {
  const li = document.createElement("li");
  li.dataset.id = id;
  const dot = document.createElement("span");
  dot.className = "dot";
  const who = document.createElement("span");
  who.className = "who";
  who.textContent = name;
  if (you) {
    const mark = document.createElement("span");
    mark.className = "you";
    mark.textContent = "you";
    who.append(" ", mark);
  }
  const what = document.createElement("span");
  what.className = "what";
  what.textContent = role;
  li.append(dot, who, what);
  return li;
}

function renderRoster() {
  const rows = s.roster.map((u) => row(u.id, String(u.name ?? ""), String(u.role ?? ""), u.id === s.id));
  rows.push(row(ANNOUNCER_ID, "📢 Announcement", "", false));
  $("roster").replaceChildren(...rows);
  renderLights();
}

function isTalking(id, now = performance.now()) {
  if (id === s.id) return s.talking;
  return now - (s.lastAudio.get(id) ?? -Infinity) < LIT_MS;
}

function renderLights() {
  const now = performance.now();
  for (const li of $("roster").children) {
    const on = isTalking(Number(li.dataset.id), now);
    if (li.classList.contains("talking") !== on) {
      li.classList.toggle("talking", on);
      li.querySelector(".dot").title = on ? "talking" : "";
    }
  }
}
setInterval(() => s.screen === "station" && renderLights(), 100);

const volumeInput = $("volume");
const volume = () => Number(volumeInput.value) / 100;
function showVolume() {
  $("volume-out").textContent = `${volumeInput.value} %`;
}
const stored = Number(store.get("volume", 80));
volumeInput.value = Number.isFinite(stored) ? Math.max(0, Math.min(100, stored)) : 80;
showVolume();
volumeInput.addEventListener("input", () => {
  store.set("volume", volumeInput.value);
  showVolume();
  audio.setVolume(volume());
});

$("name").value = store.get("name", "");
$("role").addEventListener("change", showRoleInfo);

// Hook for the automated browser test; read-only, so it is safe to keep in the shipped page.
//   parlavoxStation.state() -> {connected, joined, id, name, role, talking, talkMask, listenMask,
//                               roster: [{id, name, role, you, talking}]}
//   parlavoxStation.heard() -> Float32Array: the last (up to) 16000 received samples, decoded,
//                              oldest first, all talkers in arrival order, before jitter buffering
//   parlavoxStation.sent()  -> number of audio datagrams sent so far
window.parlavoxStation = {
  state: () => ({
    connected: s.connected, joined: s.joined, id: s.id, name: s.want?.name ?? "", role: s.role,
    talking: s.talking, talkMask: s.talkMask, listenMask: s.listenMask,
    roster: s.roster.map((u) => ({
      id: u.id, name: u.name, role: u.role, you: u.id === s.id, talking: isTalking(u.id),
    })),
  }),
  heard: () => {
    const n = Math.min(s.heardTotal, HEARD_LEN);
    const out = new Float32Array(n);
    const start = (s.heardPos - n + HEARD_LEN) % HEARD_LEN;
    for (let i = 0; i < n; i++) out[i] = s.heard[(start + i) % HEARD_LEN];
    return out;
  },
  sent: () => s.sent,
};

render();
connect();
