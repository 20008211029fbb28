// Datagrams exchanged with the intercom server. The WebSocket carries them byte for byte:
// one binary message is one datagram, first byte says what it is.
import {
  AUDIO_HEADER_SIZE as AUDIO_HEADER, KIND_AUDIO, KIND_CONTROL, MASK_OFFSET, SENDER_OFFSET, SEQ_OFFSET,
} from "../shared/constants.js";

const encoder = new TextEncoder();
const decoder = new TextDecoder();

export function encodeControl(message) {
  const body = encoder.encode(JSON.stringify(message));
  const out = new Uint8Array(1 + body.length);
  out[0] = KIND_CONTROL;
  out.set(body, 1);
  return out;
}

// `samples` are floats in [-1, 1]; out of range values are clipped, not wrapped. Sender and
// seq go out modulo their field's width (DataView wraps them), so a counter may run on freely.
export function encodeAudio(sender, mask, seq, samples) {
  const view = new DataView(new ArrayBuffer(AUDIO_HEADER + samples.length * 2));
  view.setUint8(0, KIND_AUDIO);
  view.setUint16(SENDER_OFFSET, sender, true);
  view.setUint32(MASK_OFFSET, mask >>> 0, true);
  view.setUint16(SEQ_OFFSET, seq, true);
  for (let i = 0; i < samples.length; i++) {
    const x = Math.max(-1, Math.min(1, samples[i]));
    view.setInt16(AUDIO_HEADER + i * 2, Math.round(x * 32767), true);
  }
  return view.buffer;
}

// {kind: "control", message} or {kind: "audio", sender, mask, seq, samples: Float32Array},
// or null for anything malformed (a bad datagram is dropped, never fatal).
export function decode(data) {
  const bytes = data instanceof ArrayBuffer
    ? new Uint8Array(data)
    : new Uint8Array(data.buffer, data.byteOffset, data.byteLength);
  if (bytes.length === 0) return null;
  if (bytes[0] === KIND_CONTROL) {
    try {
      const message = JSON.parse(decoder.decode(bytes.subarray(1)));
      return message && typeof message === "object" && typeof message.t === "string"
        ? { kind: "control", message }
        : null;
    } catch {
      return null;
    }
  }
  if (bytes[0] !== KIND_AUDIO || bytes.length < AUDIO_HEADER) return null;
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const samples = new Float32Array((bytes.length - AUDIO_HEADER) >> 1);
  for (let i = 0; i < samples.length; i++) {
    samples[i] = view.getInt16(AUDIO_HEADER + i * 2, true) / 32768;
  }
  return {
    kind: "audio",
    sender: view.getUint16(SENDER_OFFSET, true),
    mask: view.getUint32(MASK_OFFSET, true),
    seq: view.getUint16(SEQ_OFFSET, true),
    samples,
  };
}
