// Mixes everyone who is talking, each through an adaptive jitter buffer of their own.
// Runs in a 16 kHz context, so one sample here is one sample off the wire.
import { JitterBuffer } from "./jitter-buffer.js";

const FORGET = sampleRate; // a talker silent for 1 s is gone

class PlaybackProcessor extends AudioWorkletProcessor {
  constructor() {
    super();
    this.talkers = new Map();
    this.gone = { underruns: 0, cut: 0, added: 0 }; // of talkers forgotten
    this.port.onmessage = ({ data }) => {
      if (data && data.stats) return this.port.postMessage(this.figures());
      if (!data || !(data.samples instanceof Float32Array) || data.samples.length === 0) return;
      let talker = this.talkers.get(data.sender);
      if (!talker) this.talkers.set(data.sender, (talker = new JitterBuffer(sampleRate)));
      talker.push(data.samples, currentFrame, data.seq);
    };
  }

  process(_inputs, outputs) {
    const out = outputs[0] && outputs[0][0];
    if (!out) return true;
    out.fill(0);
    for (const [sender, talker] of this.talkers) {
      talker.mixInto(out, currentFrame);
      if (!talker.playing && talker.size === 0 && currentFrame - talker.last > FORGET) {
        for (const key of Object.keys(this.gone)) this.gone[key] += talker[key];
        this.talkers.delete(sender);
      }
    }
    for (let i = 0; i < out.length; i++) out[i] = Math.max(-1, Math.min(1, out[i]));
    return true;
  }

  // Underruns, cut and added samples since the start; each talker's buffer now.
  figures() {
    const total = { ...this.gone, talkers: [] };
    for (const [sender, talker] of this.talkers) {
      for (const key of Object.keys(this.gone)) total[key] += talker[key];
      total.talkers.push({ sender, ...talker.figures() });
    }
    return total;
  }
}

registerProcessor("parlavox-playback", PlaybackProcessor);
