// The crew table's logic, apart from the page: what each row shows, the order and filter of the
// rows, what the header counts, and which cells a new snapshot changes. No DOM here.
import { linkFigures, num, transport } from "./format.js";

const RANK = { ok: 0, warn: 1, bad: 2 };
const HEALTH = ["OK", "Warn", "Bad"];

// The names of the channels a mask covers, in the show's order.
const namesOf = (mask, channels) =>
  channels.filter((_, i) => ((num(mask) ?? 0) >>> i) & 1);

// A member's channels as chips: one per channel they talk or listen on, marked "both", "talk" or
// "hear"; a member on every channel both ways is one chip, as a stage manager's list says nothing.
function chipsOf(talk, listen, channels) {
  if (channels.length > 1 && talk.length === channels.length && listen.length === channels.length) {
    return [{ name: "All channels", mode: "both" }];
  }
  return channels.filter((c) => talk.includes(c) || listen.includes(c))
    .map((name) => ({ name, mode: !talk.includes(name) ? "hear" : listen.includes(name) ? "both" : "talk" }));
}

// One crew member of a snapshot as a row: the values it sorts and filters on, and `cells`, the
// text and grade of each cell, flat, so that two rows compare field by field.
export function rowOf(peer, channels) {
  const figures = linkFigures(peer);
  const rank = Math.max(...Object.values(figures).map((f) => RANK[f.grade]));
  const talk = namesOf(peer.talk, channels);
  const listen = namesOf(peer.listen, channels);
  const chips = chipsOf(talk, listen, channels);
  const db = num(peer.levelDbfs);
  const name = String(peer.name ?? "");
  const role = String(peer.role ?? "");
  return {
    id: String(peer.id),
    rank, name, role, talk, listen,
    talking: peer.talking === true,
    level: db ?? -200, // silent: below any level a sample can have
    loss: num(peer.loss) ?? 0, jitter: num(peer.jitterMs) ?? 0, seen: num(peer.lastSeenMs) ?? 0,
    chips,
    cells: {
      talking: peer.talking === true,
      level: db === null ? null : Math.round(db),
      name, role,
      transport: peer.transport === "udp" || peer.transport === "browser" ? peer.transport : "other",
      via: transport(peer.transport),
      health: HEALTH[rank],
      chips: chips.map((c) => `${c.mode}:${c.name}`).join("|"),
      channelsTitle: `Talk: ${talk.join(", ") || "—"} · Hear: ${listen.join(", ") || "—"}`,
      ...Object.fromEntries(Object.entries(figures).flatMap(([k, f]) => [[k, f.text], [`${k}Grade`, f.grade]])),
    },
  };
}

// The cells of `next` that differ from `previous` (all of them without one).
export function changedCells(previous, next) {
  return Object.keys(next).filter((key) => !previous || previous[key] !== next[key]);
}

// Each column's ascending order; descending reverses it.
const collator = new Intl.Collator(undefined, { numeric: true, sensitivity: "base" }); // "Crew 9" < "Crew 10"
const byText = (key) => (a, b) => collator.compare(a[key], b[key]);
const byNumber = (key) => (a, b) => a[key] - b[key];
const ORDERS = {
  level: (a, b) => a.talking - b.talking || a.level - b.level,
  name: byText("name"),
  role: byText("role"),
  // Healthiest first: by grade, then loss. Not by the time since last heard, which moves every
  // snapshot and would reshuffle every healthy row each time.
  link: (a, b) => a.rank - b.rank || a.loss - b.loss,
  channels: (a, b) => collator.compare(a.cells.chips, b.cells.chips),
  loss: byNumber("loss"),
  jitter: byNumber("jitter"),
  seen: byNumber("seen"),
};
export const COLUMNS = Object.keys(ORDERS);
// Problems first: the worst link at the top.
export const DEFAULT_SORT = Object.freeze({ column: "link", descending: true });

// `rows` in the order of `column`, ties by name then id, so that the order holds from one
// snapshot to the next.
export function sortRows(rows, { column, descending }) {
  const order = ORDERS[column] ?? ORDERS.link;
  const sign = descending ? -1 : 1;
  return [...rows].sort((a, b) => sign * order(a, b) || ORDERS.name(a, b) || (a.id < b.id ? -1 : 1));
}

// The rows matching every word of `query` in their name, role or a channel, ignoring case.
export function filterRows(rows, query) {
  const words = String(query).toLowerCase().split(/\s+/).filter(Boolean);
  if (!words.length) return rows;
  return rows.filter((row) => {
    const fields = [row.name, row.role, ...row.talk, ...row.listen].map((f) => f.toLowerCase());
    return words.every((w) => fields.some((f) => f.includes(w)));
  });
}

// What the header counts: who is joined, who talks now, whose link is not clean.
export const countsOf = (rows) => ({
  joined: rows.length,
  talking: rows.filter((r) => r.talking).length,
  warnings: rows.filter((r) => r.rank > 0).length,
});
