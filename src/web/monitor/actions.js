// The operator's actions from the monitor: announce, call, stop, and remove a crew member. Each is
// a POST that the server lets through only with the operator password, which the browser already
// gave for this page and sends again with every request to the same origin.
import { PATHS } from "../shared/constants.js";

export const SET_PASSWORD = "Actions need an operator password: set one with parlavox --operator-password, then reload.";

const $ = (id) => document.getElementById(id);
// The latest snapshot, for who shares a crew member's address and what channels there are.
let latest = { peers: [], channels: [] };
let historyKey = null;

// What the operator is told of an answer that refused an action.
export function refusalText(status, body) {
  if (status === 401) return "The operator password is needed: reload the page to give it.";
  if (status === 403) return SET_PASSWORD;
  if (status === 429) return "Too many wrong passwords: wait a minute, then reload.";
  if (status === 503) return "The server cannot read its operator password: see its console.";
  return String(body ?? "").trim() || `The server refused (${status}).`;
}

// The crew joined from `host`: phones behind one router share its address.
export const joinedFrom = (peers, host) => peers.filter((p) => p && p.host === host);

// POSTs `body` to `path`: the answer's JSON, or throws an Error the operator can read.
async function post(path, body) {
  let answer;
  try {
    answer = await fetch(path, {
      method: "POST", credentials: "same-origin", cache: "no-store",
      headers: { "Content-Type": "application/json" }, body: JSON.stringify(body),
    });
  } catch {
    throw new Error("The server cannot be reached.");
  }
  const text = await answer.text();
  if (!answer.ok) throw new Error(refusalText(answer.status, text));
  try { return JSON.parse(text); } catch { return {}; }
}

function say(message, bad = false) {
  const out = $("actions-status");
  out.textContent = message;
  out.classList.toggle("bad", bad);
}

async function act(path, body, done) {
  try {
    say(done(await post(path, body)));
  } catch (error) {
    say(error.message, true);
  }
}

const where = (channel) => channel || "all channels";

function announce(text, channel) {
  return act(PATHS.operatorAnnounce, channel ? { text, channel } : { text }, () => `Announcing on ${where(channel)}.`);
}

// The channel selects follow the show's channels, keeping what was chosen.
function fillChannels(select, channels, all) {
  const key = channels.join("\n");
  if (select.dataset.key === key) return;
  const chosen = select.value;
  select.dataset.key = key;
  select.replaceChildren(new Option(all, ""), ...channels.map((c) => new Option(c, c)));
  select.value = channels.includes(chosen) ? chosen : "";
}

// The server's recent announcements, newest first, each with "Announce again".
function renderHistory(announced) {
  const key = JSON.stringify(announced.map((a) => [a.text, a.channel]));
  if (key === historyKey) return;
  historyKey = key;
  $("history").replaceChildren(...announced.slice().reverse().map(({ text, channel }) => {
    const li = document.createElement("li");
    const words = document.createElement("span");
    words.textContent = text;
    const to = document.createElement("span");
    to.className = "dim";
    to.textContent = ` · ${where(channel)}`;
    const again = document.createElement("button");
    again.type = "button";
    again.textContent = "Announce again";
    again.addEventListener("click", () => announce(text, channel));
    li.append(words, to, again);
    return li;
  }));
  $("history-box").hidden = announced.length === 0;
}

// Called with each snapshot.
export function updateActions(snap) {
  const channels = Array.isArray(snap.channels) ? snap.channels.map(String) : [];
  latest = { peers: Array.isArray(snap.peers) ? snap.peers : [], channels };
  fillChannels($("announce-channel"), channels, "All channels");
  fillChannels($("call-channel"), channels, "Everyone");
  const announced = Array.isArray(snap.announced)
    ? snap.announced.filter((a) => a && typeof a.text === "string").map((a) => ({ text: a.text, channel: a.channel ? String(a.channel) : "" }))
    : [];
  renderHistory(announced);
}

export function bindActions() {
  $("announce-form").addEventListener("submit", (event) => {
    event.preventDefault();
    const text = $("announce-text").value.trim();
    if (!text) return say("Type what to announce.", true);
    announce(text, $("announce-channel").value).then(() => {
      if (!$("actions-status").classList.contains("bad")) $("announce-text").value = "";
    });
  });
  $("call").addEventListener("click", () => {
    const channel = $("call-channel").value;
    act(PATHS.operatorCall, channel ? { channel } : {}, () => `Called ${channel || "everyone"}.`);
  });
  $("stop").addEventListener("click", () => act(PATHS.operatorStop, {}, () => "Announcements stopped."));
}

// The confirmation for removing `member`: how many are joined from its address, then remove, or
// remove and refuse the address until the server restarts.
function confirmRemove(member) {
  const dialog = document.createElement("dialog");
  dialog.className = "remove";
  const others = joinedFrom(latest.peers, member.host).length - 1;
  const text = document.createElement("p");
  text.textContent = `Remove ${member.name} (${member.role})? ` +
    (others > 0 ? `${others + 1} crew are joined from ${member.host}: refusing it removes them all.`
      : `Only they are joined from ${member.host}.`);
  const button = (label, handler) => {
    const b = document.createElement("button");
    b.type = "button";
    b.textContent = label;
    b.addEventListener("click", () => { dialog.close(); handler?.(); });
    return b;
  };
  const done = (r) => `Removed ${(r.removed ?? []).join(", ")}` + (r.refused ? `; ${r.refused} refused until the server restarts.` : ".");
  dialog.append(text,
    button("Remove", () => act(PATHS.operatorRemove, { id: member.id }, done)),
    button(`Remove and refuse ${member.host}`, () => act(PATHS.operatorRemove, { id: member.id, refuse: true }, done)),
    button("Cancel"));
  dialog.addEventListener("close", () => dialog.remove());
  document.body.append(dialog);
  dialog.showModal();
}

// The last cell of a crew row: "Remove…" for `member` ({id, name, role, host} of a snapshot).
export function rowActions(member) {
  const b = document.createElement("button");
  b.type = "button";
  b.className = "row-action";
  b.textContent = "Remove…";
  b.addEventListener("click", () => confirmRemove(member));
  return b;
}
