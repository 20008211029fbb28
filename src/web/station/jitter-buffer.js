// One talker's adaptive jitter buffer, for the playback worklet (and Node's tests: it touches no
// global). Times are in samples of the context's clock (the worklet's currentFrame).
//
// Each frame's arrival is timed against the talker's own pace (one frame's length per datagram
// number): how much later than the earliest arrivals of the stream it came is its lateness. The
// buffer holds back a small floor plus the worst lateness of the talker's last seconds of talk:
// it grows the moment a frame comes later than that, and shrinks again once the link has been
// calm for as long. What is queued never drifts from that target: excess is cut, a shortfall is
// made up with silence, both where the talker is quiet (an excess that lasts is cut anyway,
// crossfaded). A frame lost on the way leaves its silence; one that comes after a later one is
// dropped, its place gone by.

export const TUNING = Object.freeze({
  floorMs: 8, // held back on a perfect link, plus the worst lateness...
  memoryBlocks: 8, // ...of this many blocks...
  blockMs: 1000, // ...of this much talk
  creep: 1 / 500, // the earliest-arrival line may rise this much per sample: a talker's slow clock
  limitMs: 200, // never more queued: past it, the oldest audio goes
  highestTargetMs: 150,
  windowFrames: 25, // the delay is judged on its mean over this many arrivals
  slackMs: 6, // and left alone within this much of the target
  quiet: 0.02, // a sample peak below this is a pause, where audio may be cut or silence added
  patienceMs: 1000, // too much queued for this long is cut even while the talker talks
  fadeSamples: 64, // a cut crossfades over this many samples
});

const ms = (rate, value) => Math.round((value * rate) / 1000);
const signed16 = (x) => (x << 16) >> 16;

export class JitterBuffer {
  constructor(rate, tuning = TUNING) {
    this.t = tuning;
    this.rate = rate;
    for (const name of ["floor", "limit", "highestTarget", "slack", "patience", "block"]) {
      this[name] = ms(rate, tuning[`${name}Ms`]);
    }
    this.ring = new Float32Array(2 * this.limit);
    this.read = 0;
    this.size = 0;
    this.playing = false;
    this.startAt = 0; // when a (re)start begins to play
    this.stream = null; // {frame, seq, steps, line}: the current stream's last arrival
    this.worst = []; // the worst lateness of each past block, newest last
    this.blockWorst = 0;
    this.blockTime = 0; // talk time into the current block
    this.last = -Infinity; // frame of the last arrival
    this.ranDry = false;
    this.window = { sum: 0, count: 0 };
    this.adjust = 0; // samples to cut (> 0) or to add as silence (< 0) at the next chance
    this.adjustSince = 0;
    this.underruns = 0; // ran dry in the middle of a stream
    this.cut = 0; // samples taken out to keep the delay down (the cap's drops included)
    this.added = 0; // samples of silence put in to let the queue grow
  }

  get lateness() {
    return Math.max(this.blockWorst, ...this.worst);
  }

  get target() {
    return Math.min(this.highestTarget, this.floor + this.lateness);
  }

  // A frame of `samples` arrived at `frame`; `seq` its datagram number, if known.
  push(samples, frame, seq) {
    if (samples.length > this.limit) samples = samples.subarray(samples.length - this.limit);
    const late = this.measure(frame, seq, samples.length);
    if (late === undefined) return; // a straggler or a repeat: its place has gone by
    // Ran dry before this frame came, which was not for a frame lost on the way: an underrun.
    if (this.ranDry && late !== null && this.stream.steps === 1) this.underruns++;
    this.ranDry = false;
    // Frames lost on the way leave their silence, so that what follows keeps its time.
    if (late !== null && this.size > 0) this.pad((this.stream.steps - 1) * samples.length);
    if (this.playing) {
      // What this frame will wait, plus how late it came: the delay, whatever the jitter.
      this.window.sum += this.size + (late ?? 0);
      if (++this.window.count === this.t.windowFrames) this.judge(frame);
    } else if (this.size === 0) {
      // Played as if it had come on the line: a late frame has used up part of its wait.
      this.startAt = frame + this.target - (late ?? 0);
    }
    this.last = frame;
    this.append(samples);
  }

  append(samples) {
    const excess = this.size + samples.length - this.limit;
    if (excess > 0) this.skip(excess, 0);
    const { ring } = this;
    for (let i = 0; i < samples.length; i++) ring[(this.read + this.size + i) % ring.length] = samples[i];
    this.size += samples.length;
  }

  pad(count) {
    if (count > 0) this.append(new Float32Array(Math.min(count, this.limit)));
  }

  // Times this arrival against the stream's pace and keeps the worst lateness. Returns the
  // lateness; null when the frame starts a stream (the first, or after a pause) rather than
  // carrying one on; undefined for a frame that comes after one numbered later.
  measure(frame, seq, length) {
    const s = this.stream;
    const steps = !s || seq === undefined || s.seq === undefined ? 1 : signed16(seq - s.seq);
    if (!s || Math.abs(frame - s.frame - steps * length) > this.limit) {
      this.stream = { frame, seq, steps, line: frame }; // line: where the earliest arrivals fall
      return null;
    }
    if (steps <= 0) return undefined;
    // Time passes for the memory only while the talker talks: a pause teaches nothing.
    this.blockTime += frame - s.frame;
    if (this.blockTime >= this.block) {
      this.worst.push(this.blockWorst);
      this.worst.splice(0, Math.max(0, this.worst.length - this.t.memoryBlocks));
      Object.assign(this, { blockWorst: 0, blockTime: 0 });
    }
    s.line = Math.min(s.line + steps * length + this.t.creep * (frame - s.frame), frame);
    Object.assign(s, { frame, seq, steps });
    const late = Math.round(frame - s.line);
    this.blockWorst = Math.max(this.blockWorst, late);
    return late;
  }

  judge(frame) {
    const error = Math.round(this.window.sum / this.window.count) - this.target;
    this.window = { sum: 0, count: 0 };
    if (Math.sign(error) !== Math.sign(this.adjust)) this.adjustSince = frame;
    this.adjust = Math.abs(error) > this.slack ? error : 0;
  }

  // Adds what plays in the render quantum starting at `frame` into `out`.
  mixInto(out, frame) {
    let i = 0;
    if (!this.playing) {
      if (this.size === 0 || frame + out.length <= this.startAt) return;
      this.playing = true;
      i = Math.max(0, this.startAt - frame);
    }
    if (this.adjust !== 0) i += this.adapt(out.length - i, frame);
    const { ring } = this;
    const n = Math.min(out.length - i, this.size);
    for (let k = 0; k < n; k++) out[i + k] += ring[(this.read + k) % ring.length];
    this.read = (this.read + n) % ring.length;
    this.size -= n;
    if (this.size === 0) {
      // Ran dry: bank up afresh, so a stall is one short gap rather than a run of clicks.
      Object.assign(this, { playing: false, ranDry: true, adjust: 0, window: { sum: 0, count: 0 } });
    }
  }

  // Carries out a pending adjustment where it will not be heard, or a cut that has waited too
  // long anyway. Returns how many samples of silence to play first.
  adapt(room, frame) {
    const { fadeSamples } = this.t;
    if (this.adjust < 0) {
      if (this.quietAhead(room) < Math.min(room, this.size)) return 0;
      const n = Math.min(-this.adjust, room);
      this.adjust += n;
      this.added += n;
      return n;
    }
    // A cut as long as the pause ahead allows (the rest at the next pause), or all of it when
    // it has waited too long.
    const overdue = frame - this.adjustSince >= this.patience;
    const n = Math.min(this.adjust, this.size - room,
      overdue ? Infinity : this.quietAhead(this.adjust + fadeSamples) - fadeSamples);
    if (n > 0) {
      this.skip(n, fadeSamples);
      this.adjust -= n;
      this.window = { sum: 0, count: 0 };
    }
    return 0;
  }

  // How many of the next `count` queued samples are quiet, from the first on.
  quietAhead(count) {
    const { ring } = this;
    const n = Math.min(count, this.size);
    for (let k = 0; k < n; k++) {
      if (Math.abs(ring[(this.read + k) % ring.length]) >= this.t.quiet) return k;
    }
    return n;
  }

  // Drops the next `count` queued samples, blending what was about to play into what follows
  // over `fade` samples.
  skip(count, fade) {
    if (count <= 0) return;
    const { ring } = this;
    const blend = Math.min(fade, this.size - count, count);
    for (let k = 0; k < blend; k++) {
      const w = (k + 1) / (blend + 1);
      const at = (this.read + count + k) % ring.length;
      ring[at] = ring[(this.read + k) % ring.length] * (1 - w) + ring[at] * w;
    }
    this.read = (this.read + count) % ring.length;
    this.size -= count;
    this.cut += count;
  }

  figures() {
    const toMs = (samples) => Math.round((samples * 10000) / this.rate) / 10;
    return { targetMs: toMs(this.target), latenessMs: toMs(this.lateness), queuedMs: toMs(this.size) };
  }
}
