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

const OUTPUT_SECONDS = 14;

//   parlavoxStation.state()  -> {connected, joined, id, name, role, talking, talkMask, listenMask,
//                                hearing: [channel], roster: [{id, name, role, you, talking}]}
//   parlavoxStation.output(seconds) -> what the station played last (up to OUTPUT_SECONDS), after
//                                the master volume: {samples, endFrame (the audio clock's frame
//                                after the last sample), contextTime and performanceTime (the
//                                context's output timestamp, performance.now()'s clock),
//                                timeOrigin}
//   parlavoxStation.playback() -> a promise of the playback worklet's figures
//   parlavoxStation.sent()    -> number of audio datagrams sent so far
// and what the page adds (`page`): the alarms up, the sound's and the screen lock's states, the
// latch, alerts sounded, rosters received, milliseconds spent on the crew list, call chimes played;
// suspendAudio() stops the sound as a phone's system would.
export function installStationHook(session, audio, page = {}) {
  const output = new SampleRing(OUTPUT_SECONDS * SAMPLE_RATE);
  let endFrame = 0;
  audio.onTap = ({ frame, samples }) => {
    output.push(samples);
    endFrame = frame + samples.length;
  };
  const outputStamp = () => {
    const { ctx } = audio;
    const stamp = ctx.getOutputTimestamp?.();
    // What has been played lies in the past: WebKitGTK's stamp is ahead of the clock it is on.
    if (stamp && stamp.performanceTime <= performance.now()) return stamp;
    const latency = (ctx.baseLatency || 0) + (ctx.outputLatency || 0);
    return { contextTime: ctx.currentTime, performanceTime: performance.now() + latency * 1000 };
  };
  window.parlavoxStation = {
    ...page,
    state: () => ({
      connected: session.connected, joined: session.joined, id: session.id,
      name: session.want?.name ?? "", role: session.role, talking: session.talking,
      talkMask: session.talkMask, listenMask: session.listenMask, hearing: session.hearing(),
      roster: session.rosterView(),
    }),
    output: (seconds = OUTPUT_SECONDS) => {
      const all = output.latest();
      const samples = all.subarray(Math.max(0, all.length - Math.round(seconds * SAMPLE_RATE)));
      const { contextTime, performanceTime } = outputStamp();
      return {
        samples: Array.from(samples), endFrame, contextTime, performanceTime,
        timeOrigin: performance.timeOrigin,
      };
    },
    playback: () => audio.playback(),
    sent: () => session.sent,
  };
}
