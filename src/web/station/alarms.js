// What is wrong with the station now, and what the page shows for it, without the page: the
// alarms, the status, whether talking may go on, the crew list's staleness and the tab's title.
import { LOST_TEXT } from "../shared/connection.js";

export const AUDIO_STOPPED = "Audio stopped — tap to restore";
export const NO_WAKE_LOCK = "This browser may let the screen sleep, and go off comms with it: keep the screen on.";

// onStation: joined once and not left; linkUp, joined: the link and the session now; audio: the
// sound's state ("running", "suspended", "interrupted", "closed"; null before it starts);
// talking: our mic is out; wakeLock: the screen lock's state (see ScreenLock); show: its name.
export function assess({ onStation, linkUp, joined, audio, talking, wakeLock, show }) {
  const offLink = onStation && !joined; // dropped, and not back in yet
  const audioStopped = onStation && audio !== "running";
  const alarms = [];
  if (offLink) alarms.push({ kind: "link", text: LOST_TEXT });
  if (audioStopped) alarms.push({ kind: "audio", text: AUDIO_STOPPED });
  const name = show || "Parlavox";
  return {
    alarms,
    status: !linkUp ? "Reconnecting…" : !joined ? "Joining…" : audioStopped ? "Audio stopped" : "Connected",
    canTalk: joined && linkUp && audio === "running",
    crewStale: offLink,
    wakeNote: onStation && (wakeLock === "refused" || wakeLock === "unsupported") ? NO_WAKE_LOCK : "",
    // Seen from another window: an open mic above all, then being off comms.
    title: talking ? `🔴 Talking — ${name}` : alarms.length ? `⚠️ Off comms — ${name}` : name,
  };
}

// The alarms raised since the last look: each sounds and buzzes once, when it goes up.
export class AlarmEdges {
  constructor() {
    this.up = new Set();
  }

  raised(alarms) {
    const now = new Set(alarms.map((a) => a.kind));
    const fresh = [...now].filter((kind) => !this.up.has(kind));
    this.up = now;
    return fresh;
  }
}
