// How the monitor words and grades a snapshot's figures; no page here.
import { LINK_GRADES } from "../shared/constants.js";

const pad = (n) => String(n).padStart(2, "0");
export const num = (v) => (typeof v === "number" && Number.isFinite(v) ? v : null);
export const list = (a) => (Array.isArray(a) && a.length ? a.map(String).join(", ") : "—");

export function upFor(seconds) {
  const t = Math.max(0, Math.floor(num(seconds) ?? 0));
  const h = Math.floor(t / 3600);
  const m = Math.floor(t / 60) % 60;
  return h ? `Up ${h} h ${pad(m)} min` : m ? `Up ${m} min` : `Up ${t} s`;
}

export function clock(ms) {
  const d = new Date(ms);
  return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
}

// A member heard within a keepalive's period is heard now: counting those seconds up would only
// make every row of a quiet crew change every second.
export const seen = (ms) => (ms < LINK_GRADES.lastHeardMs.warn ? "now" : `${Math.floor(ms / 1000)} s ago`);
export const transport = (t) => (t === "udp" ? "UDP" : t === "browser" ? "Browser" : String(t ?? "?"));

// "ok" below warn, "warn" from it, "bad" above bad; unknown counts as ok.
export const grade = (v, { warn, bad }) =>
  (v === null ? "ok" : v > bad ? "bad" : v >= warn ? "warn" : "ok");

// A peer's link figures, shown and graded: graded on the raw values, as 0.05 * 100 is not
// exactly 5 in floating point.
export function linkFigures(peer) {
  const loss = num(peer.loss);
  const jitter = num(peer.jitterMs);
  const last = num(peer.lastSeenMs);
  const figure = (v, grades, text) => ({ text: v === null ? "—" : text(v), grade: grade(v, grades) });
  return {
    loss: figure(loss, LINK_GRADES.loss, (v) => `${(v * 100).toFixed(1)} %`),
    jitter: figure(jitter, LINK_GRADES.jitterMs, (v) => `${v.toFixed(1)} ms`),
    seen: figure(last, LINK_GRADES.lastHeardMs, seen),
  };
}
