// A crew member on the UDP protocol, written with the pages' own codec (the staged pages, see
// pages.mjs), for the browser test and the bench: it joins from an address of its own, keeps
// alive, and sends frames when told, one at a time or on a 20 ms schedule that it keeps (or
// strays from on purpose), each stamped with the time it was due, so that what the page plays can
// be timed against it.
import dgram from "node:dgram";
import { once } from "node:events";
import { performance } from "node:perf_hooks";
import { load } from "./pages.mjs";

const { FRAME_SAMPLES, KEEPALIVE_MS, MessageType, SAMPLE_RATE } = await load("shared/constants.js");
const { decode, encodeAudio, encodeControl } = await load("station/protocol.js");

export const FRAME_MS = (1000 * FRAME_SAMPLES) / SAMPLE_RATE;
const sleep = (ms) => new Promise((done) => setTimeout(done, Math.max(0, ms)));

// A frame of a sine at `hz` and `amplitude`, its phase running on from frame to frame.
export const sine = (hz, amplitude) => (k) => Float32Array.from({ length: FRAME_SAMPLES },
  (_, i) => amplitude * Math.sin((2 * Math.PI * hz * (k * FRAME_SAMPLES + i)) / SAMPLE_RATE));

export class UdpCrew {
  // `from`: its own address on loopback (127.0.0.0/8), one device each.
  static async join(port, role, name, from = "127.0.0.1") {
    const crew = Object.assign(new UdpCrew(), { socket: dgram.createSocket("udp4"), port, seq: 0 });
    crew.socket.bind(0, from);
    await once(crew.socket, "listening");
    await crew.ask({ t: MessageType.hi }, MessageType.config);
    const { id, talkMask } = await crew.ask({ t: MessageType.join, name, role }, MessageType.welcome);
    crew.keepalive = setInterval(() => crew.send(encodeControl({ t: MessageType.ping })), KEEPALIVE_MS);
    return Object.assign(crew, { id, talkMask });
  }

  send(bytes, sent) {
    this.socket.send(bytes, this.port, "127.0.0.1", sent);
  }

  // Sends a control message, again each second a datagram may have been lost, until the server
  // answers with one of the type `type`.
  async ask(message, type) {
    for (let tries = 0; tries < 10; tries++) {
      this.send(encodeControl(message));
      const answer = await this.answer(type, 1000);
      if (answer) return answer;
    }
    throw new Error(`no ${type} from the server`);
  }

  // The server's next message of the type `type` within `ms`, or null; a refusal throws.
  answer(type, ms) {
    return new Promise((resolve, reject) => {
      const end = (settle, value) => {
        clearTimeout(timer);
        this.socket.off("message", heard);
        settle(value);
      };
      const heard = (data) => {
        const answer = decode(data)?.message;
        if (answer?.t === type) end(resolve, answer);
        else if (answer?.t === MessageType.error) end(reject, new Error(`refused: ${answer.reason}`));
      };
      const timer = setTimeout(() => end(resolve, null), ms);
      this.socket.on("message", heard);
    });
  }

  // One frame of `samples` on `mask`, now.
  sendFrame(mask, samples) {
    this.send(new Uint8Array(encodeAudio(this.id, mask, this.seq++, samples)));
  }

  // Sends `frames` frames on `mask`: frame k is frame(k), due FRAME_MS after frame k - 1 and sent
  // late by lateMs(k) (never before the one ahead of it). at(k) runs when frame k is due.
  // Returns each frame's due time on performance.timeOrigin's clock (epoch milliseconds).
  async talk({ mask, frames, frame, lateMs = () => 0, at = () => {} }) {
    const start = performance.now() + FRAME_MS;
    const due = [];
    let last = 0;
    for (let k = 0; k < frames; k++) {
      due.push(performance.timeOrigin + start + k * FRAME_MS);
      await sleep(start + k * FRAME_MS - performance.now());
      at(k);
      last = Math.max(last, start + k * FRAME_MS + lateMs(k));
      await sleep(last - performance.now());
      this.sendFrame(mask, frame(k));
    }
    return due;
  }

  leave() {
    clearInterval(this.keepalive);
    // Closed once the "bye" is out: Node sends after a lookup, and a close before it drops it.
    this.send(encodeControl({ t: MessageType.bye }), () => this.socket.close());
  }
}
