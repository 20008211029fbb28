// Mixes everyone who is talking, each through a small jitter buffer of their own.
// Runs in a 16 kHz context, so one sample here is one sample off the wire.

// 60 ms banked before a talker (re)starts: rides over network jitter.
const START = Math.round(0.06 * sampleRate);
// Past 200 ms queued, the oldest audio goes, so delay cannot creep up.
const LIMIT = Math.round(0.2 * sampleRate);
const TAIL = START; // a last burst shorter than START still plays once nothing more arrives
const FORGET = sampleRate; // a talker silent for 1 s is gone

class Talker {
  constructor() {
    this.chunks = [];
    this.head = 0; // read position inside chunks[0]
    this.size = 0;
    this.playing = false;
    this.last = currentFrame;
  }

  push(samples) {
    this.chunks.push(samples);
    this.size += samples.length;
    this.last = currentFrame;
    while (this.size > LIMIT) this.skip(this.size - LIMIT);
  }

  skip(count) {
    const left = this.chunks[0].length - this.head;
    if (left <= count) {
      this.chunks.shift();
      this.head = 0;
      this.size -= left;
    } else {
      this.head += count;
      this.size -= count;
    }
  }

  mixInto(out) {
    let i = 0;
    while (i < out.length && this.size > 0) {
      const chunk = this.chunks[0];
      const n = Math.min(out.length - i, chunk.length - this.head);
      for (let k = 0; k < n; k++) out[i + k] += chunk[this.head + k];
      i += n;
      this.head += n;
      this.size -= n;
      if (this.head === chunk.length) {
        this.chunks.shift();
        this.head = 0;
      }
    }
    // Ran dry: bank up again, so a network stall is one short gap rather than a run of clicks.
    if (this.size === 0) this.playing = false;
  }
}

class PlaybackProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.talkers = new Map();
    this.port.onmessage = ({ data }) => {
      if (!data || !(data.samples instanceof Float32Array) || data.samples.length === 0) return;
      let talker = this.talkers.get(data.sender);
      if (!talker) this.talkers.set(data.sender, (talker = new Talker()));
      talker.push(data.samples);
    };
  }

  process(_inputs, outputs) {
    const out = outputs[0] && outputs[0][0];
    if (!out) return true;
    out.fill(0);
    for (const [sender, talker] of this.talkers) {
      const quiet = currentFrame - talker.last;
      if (!talker.playing && talker.size > 0 && (talker.size >= START || quiet >= TAIL)) {
        talker.playing = true;
      }
      if (talker.playing) talker.mixInto(out);
      else if (talker.size === 0 && quiet > FORGET) this.talkers.delete(sender);
    }
    for (let i = 0; i < out.length; i++) out[i] = Math.max(-1, Math.min(1, out[i]));
    return true;
  }
}

registerProcessor("parlavox-playback", PlaybackProcessor);
