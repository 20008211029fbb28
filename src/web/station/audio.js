// The station's sound: a 16 kHz context plays the mix, and the microphone is cut into
// 20 ms frames for the wire while the user talks.
import { FRAME_SAMPLES, SAMPLE_RATE } from "../shared/constants.js";

// Beside this module, wherever the page is served from.
const CAPTURE_WORKLET = new URL("./capture-worklet.js", import.meta.url).href;
const PLAYBACK_WORKLET = new URL("./playback-worklet.js", import.meta.url).href;
const TAP_WORKLET = new URL("./tap-worklet.js", import.meta.url).href;

const MIC = { channelCount: 1, echoCancellation: true, noiseSuppression: true, autoGainControl: true };

export class StationAudio {
  constructor() {
    this.ctx = null;
    this.captureCtx = null; // only when the mic cannot join the 16 kHz context (Firefox)
    this.volume = null;
    this.player = null;
    this.hasMic = false;
    this.micError = ""; // why there is no mic: the error's name ("NotAllowedError": refused)
    this.onState = null; // () => void: a context started, stopped or was interrupted
    this.capturing = false;
    this.onFrame = null; // (Float32Array) => void; the array is reused, use it right away
    this.frame = new Float32Array(FRAME_SAMPLES);
    this.fill = 0;
    this.down = null; // decimation state when capturing at the device's own rate
    this.onTap = null; // ({frame, samples}) => void: set before start() to be handed what plays
    this.asked = []; // resolvers of playback() waiting for the worklet's answer
  }

  // Call straight from the user's gesture: the context and the mic request are both started
  // before the first await, or Safari keeps them locked. Resolves to whether a mic is live.
  async start(volume) {
    if (this.ctx) {
      this.resume();
      return this.hasMic;
    }
    const ctx = new AudioContext({ sampleRate: SAMPLE_RATE, latencyHint: "interactive" });
    ctx.resume().catch(() => {});
    const micRequest = this.askMic();
    try {
      await Promise.all([CAPTURE_WORKLET, PLAYBACK_WORKLET, ...(this.onTap ? [TAP_WORKLET] : [])]
        .map((url) => ctx.audioWorklet.addModule(url)));
    } catch (err) {
      micRequest.then((stream) => stream?.getTracks().forEach((t) => t.stop()));
      ctx.close().catch(() => {});
      throw err;
    }
    this.ctx = ctx;
    ctx.addEventListener("statechange", () => this.onState?.());
    this.volume = new GainNode(ctx, { gain: volume });
    this.player = new AudioWorkletNode(ctx, "parlavox-playback", {
      numberOfInputs: 0, numberOfOutputs: 1, outputChannelCount: [1],
    });
    this.player.port.onmessage = ({ data }) => this.asked.shift()?.(data);
    this.player.connect(this.volume).connect(ctx.destination);
    if (this.onTap) {
      // Outputs silence into the destination: only there so that the engine runs it.
      const tap = new AudioWorkletNode(ctx, "parlavox-tap", {
        numberOfInputs: 1, numberOfOutputs: 1, outputChannelCount: [1],
      });
      tap.port.onmessage = ({ data }) => this.onTap(data);
      this.volume.connect(tap).connect(ctx.destination);
    }
    const stream = await micRequest;
    this.hasMic = stream ? await this.attachMic(stream) : false;
    return this.hasMic;
  }

  askMic() {
    if (!navigator.mediaDevices?.getUserMedia) {
      this.micError = "NotSupportedError";
      return Promise.resolve(null);
    }
    return navigator.mediaDevices.getUserMedia({ audio: MIC }).then((stream) => {
      this.micError = "";
      return stream;
    }, (err) => {
      this.micError = err?.name || "Error";
      return null;
    });
  }

  // After the user allowed the mic in the browser's settings: no reload needed.
  async retryMic() {
    if (this.hasMic || !this.ctx) return this.hasMic;
    const stream = await this.askMic();
    this.hasMic = stream ? await this.attachMic(stream) : false;
    return this.hasMic;
  }

  // The worst of the contexts' states: "running" only when all of them run.
  get state() {
    if (!this.ctx) return null;
    const stopped = [this.ctx, this.captureCtx].find((ctx) => ctx && ctx.state !== "running");
    return stopped ? stopped.state : "running";
  }

  async attachMic(stream) {
    let ctx = this.ctx;
    let source;
    try {
      source = ctx.createMediaStreamSource(stream);
    } catch {
      // Firefox will not feed a mic into a context at another rate: capture at the device's
      // rate in a second context and bring it down to 16 kHz here.
      try {
        ctx = this.captureCtx = new AudioContext({ latencyHint: "interactive" });
        ctx.resume().catch(() => {});
        ctx.addEventListener("statechange", () => this.onState?.());
        await ctx.audioWorklet.addModule(CAPTURE_WORKLET);
        source = ctx.createMediaStreamSource(stream);
        this.down = { step: ctx.sampleRate / SAMPLE_RATE, t: 0, sum: 0, n: 0 };
      } catch {
        stream.getTracks().forEach((t) => t.stop());
        return false;
      }
    }
    const node = new AudioWorkletNode(ctx, "parlavox-capture", {
      numberOfInputs: 1, numberOfOutputs: 1, outputChannelCount: [1],
      channelCount: 1, channelCountMode: "explicit",
    });
    node.port.onmessage = (e) => this.takeBlock(e.data);
    // Chrome only runs a worklet something pulls on: give it a silent path to the speakers.
    source.connect(node).connect(new GainNode(ctx, { gain: 0 })).connect(ctx.destination);
    return true;
  }

  setCapturing(on) {
    this.capturing = on;
    // A new talk starts with fresh audio, never the tail of the last one.
    this.fill = 0;
    if (this.down) Object.assign(this.down, { t: 0, sum: 0, n: 0 });
  }

  takeBlock(block) {
    if (!this.capturing) return;
    const down = this.down;
    for (let i = 0; i < block.length; i++) {
      let x = block[i];
      if (down) {
        // Average over each output period: a crude low-pass, plenty for speech.
        down.sum += x;
        down.n++;
        if (++down.t < down.step) continue;
        down.t -= down.step;
        x = down.sum / down.n;
        down.sum = 0;
        down.n = 0;
      }
      this.frame[this.fill++] = x;
      if (this.fill === FRAME_SAMPLES) {
        this.fill = 0;
        this.onFrame?.(this.frame);
      }
    }
  }

  // Takes ownership of `samples` (its buffer moves to the audio thread), scaled by `gain`.
  // seq: the datagram's number, which tells the jitter buffer a late frame from a lost one.
  play(sender, samples, gain = 1, seq = undefined) {
    if (!this.player) return;
    if (gain !== 1) for (let i = 0; i < samples.length; i++) samples[i] *= gain;
    this.player.port.postMessage({ sender, seq, samples }, [samples.buffer]);
  }

  // Resolves to the playback worklet's figures: {underruns, cut, added (samples), talkers:
  // [{sender, targetMs, latenessMs, queuedMs}]}.
  playback() {
    if (!this.player) return Promise.resolve(null);
    return new Promise((resolve) => {
      this.asked.push(resolve);
      this.player.port.postMessage({ stats: true });
    });
  }

  setVolume(gain) {
    if (this.volume) this.volume.gain.setTargetAtTime(gain, this.ctx.currentTime, 0.02);
  }

  // iOS suspends (or "interrupts") contexts on its own; any later gesture may wake them.
  resume() {
    for (const ctx of [this.ctx, this.captureCtx]) {
      if (ctx && ctx.state !== "running" && ctx.state !== "closed") ctx.resume().catch(() => {});
    }
  }
}
