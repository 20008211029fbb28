// The automated browser test's window into the station, read-only but for one lever (the sound
// stopped, as a phone's system stops it). Installed only when the page is opened with ?test, so a
// crew member's phone keeps no copy of what it hears.
import { SAMPLE_RATE } from "../shared/constants.js";

export const testHookWanted = () => new URLSearchParams(location.search).has("test");

// The last `size` samples pushed, in order.
export class SampleRing {
  constructor(size) {
    this.samples = new Float32Array(size);
    this.pos = 0; // where the next sample goes
    this.total = 0;
  }

  push(samples) {
    const size = this.samples.length;
    for (let i = 0; i < samples.length; i++) {
      this.samples[this.pos] = samples[i];
      this.pos = (this.pos + 1) % size;
    }
    this.total += samples.length;
  }

  // Oldest first.
  latest() {
    const size = this.samples.length;
    const n = Math.min(this.total, size);
    const out = new Float32Array(n);
    const start = (this.pos - n + size) % size;
    for (let i = 0; i < n; i++) out[i] = this.samples[(start + i) % size];
    return out;
  }
}

//   parlavoxStation.state() -> {connected, joined, id, name, role, talking, talkMask, listenMask,
//                               hearing: [channel], roster: [{id, name, role, you, talking}]}
//   parlavoxStation.heard() -> Float32Array: the last (up to) one second of received samples,
//                              decoded, oldest first, all talkers in arrival order, before jitter
//                              buffering
//   parlavoxStation.sent()  -> number of audio datagrams sent so far
// and what the page adds (`page`): the alarms up, the sound's and the screen lock's states, the
// latch, alerts sounded, rosters received, milliseconds spent on the crew list; suspendAudio()
// stops the sound as a phone's system would.
// Returns the ring to push each received frame into.
export function installStationHook(session, page = {}) {
  const heard = new SampleRing(SAMPLE_RATE);
  window.parlavoxStation = {
    ...page,
    state: () => ({
      connected: session.connected, joined: session.joined, id: session.id,
      name: session.want?.name ?? "", role: session.role, talking: session.talking,
      talkMask: session.talkMask, listenMask: session.listenMask, hearing: session.hearing(),
      roster: session.rosterView(),
    }),
    heard: () => heard.latest(),
    sent: () => session.sent,
  };
  return heard;
}
