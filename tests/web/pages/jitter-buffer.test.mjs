// The playback worklet's jitter buffer, one talker at a time, played against links of many kinds:
// frames are timed into it as the worklet would (taken in between render quanta, only every few
// quanta on a busy audio thread) and what it plays is read back sample by sample.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { FRAME_SAMPLES: FRAME, SAMPLE_RATE: RATE } = await load("shared/constants.js");
const { JitterBuffer, TUNING } = await load("station/jitter-buffer.js");

const QUANTUM = 128;
const MS = RATE / 1000;
const FRAME_MS = FRAME / MS;
// Each frame's first sample says which frame it is, so that it can be found in what plays.
const [MARK, STEP] = [0.9, 1e-5];
const mark = (n) => MARK + n * STEP;
const frameOf = (x, n = Math.round((x - MARK) / STEP)) => (Math.abs(x - mark(n)) < STEP / 4 ? n : null);

// Talk spurts of a second with half a second of pauses between.
const speech = (n) => Float32Array.from({ length: FRAME }, (_, i) =>
  (i === 0 ? mark(n) : n % 75 < 50 ? 0.3 * Math.sin(i / 3) : 0));
const tone = (n) => Float32Array.from({ length: FRAME }, (_, i) => (i === 0 ? mark(n) : 0.3 * Math.sin(i / 3)));
const random = (seed) => () => ((seed = (seed * 1103515245 + 12345) % 2 ** 31) / 2 ** 31);

// Frame n is due at n frame lengths times `pace` plus pauseMs(n) (the talker let go of the key in
// between), reaches the worklet lateMs(n) after that (never before the frame ahead of it: the
// socket keeps order) unless lost(n). Returns when each frame's
// mark played, on the frame's due time (ms; undefined: never), when underruns happened (s), the
// largest amount ever queued (ms), and all it played.
function play({ frames, lateMs = () => 0, lost = () => false, pace = 1, pauseMs = () => 0, content = speech,
  every = 2 }) {
  const buffer = new JitterBuffer(RATE);
  const due = (n) => n * FRAME * pace + pauseMs(n) * MS;
  const arrivals = [];
  for (let n = 0, at = 0; n < frames; n++) {
    at = Math.max(at, Math.round(due(n) + lateMs(n) * MS));
    if (!lost(n)) arrivals.push({ at, n });
  }
  const [played, underruns, all] = [[], [], []]; // played: ms after it was due
  const out = new Float32Array(QUANTUM);
  let queued = 0;
  const end = arrivals.at(-1).at + RATE;
  for (let frame = 0, next = 0, q = 0; frame < end; frame += QUANTUM, q++) {
    while (q % every === 0 && next < arrivals.length && arrivals[next].at <= frame) {
      const { n } = arrivals[next++];
      const before = buffer.underruns;
      buffer.push(content(n), frame, n & 0xffff);
      if (buffer.underruns > before) underruns.push(frame / RATE);
      queued = Math.max(queued, buffer.size);
    }
    out.fill(0);
    buffer.mixInto(out, frame);
    out.forEach((x, i) => {
      const n = frameOf(x);
      if (n !== null) played[n] = (frame + i - due(n)) / MS;
    });
    all.push(...out);
  }
  return { played, underruns, queuedMs: queued / MS, all, buffer };
}

const median = (xs) => [...xs].sort((a, b) => a - b)[xs.length >> 1];
// The delays of the frames due from `fromS` to `toS` seconds.
const span = (r, fromS, toS) => r.played.slice(fromS * 1000 / FRAME_MS, toS * 1000 / FRAME_MS)
  .filter((x) => x !== undefined);

test("the buffer holds back little on a calm link and grows at once with the jitter", () => {
  const rough = random(1);
  const cases = [
    // name, link, median delay at most (ms) from 2 s on, underruns allowed: when (s)
    ["calm", { lateMs: () => 1 }, 30, []],
    ["calm, a busy audio thread", { lateMs: () => 1, every: 4 }, 45, []],
    ["uniform jitter up to 30 ms", { lateMs: () => 30 * rough() }, 30 + 30, [0, 2]],
    ["a 70 ms stall every 2 s", { lateMs: (n) => (n % 100 === 50 ? 70 : 1) }, 70 + 30, [1, 1.2]],
    ["5% of frames lost", { lateMs: () => 1, lost: () => rough() < 0.05 }, 30, []],
    ["a pause in the talk", { lateMs: () => 1, pauseMs: (n) => (n >= 500 ? 700 : 0) }, 30, []],
    ["a pause, the frames between lost", { lateMs: () => 1, lost: (n) => n >= 500 && n < 535 }, 30, []],
  ];
  for (const [name, link, most, [from, to] = []] of cases) {
    const r = play({ frames: 1000, ...link });
    const delays = span(r, 2, 20);
    const expected = link.lost ? 0.9 : 1; // of the frames due
    assert.ok(delays.length >= 0.95 * expected * 18 * 50, `${name}: ${delays.length} heard`);
    assert.ok(median(delays) <= most, `${name}: median delay ${median(delays)} ms`);
    assert.deepEqual(r.underruns.filter((at) => !(at >= from && at <= to)), [], `${name}: underruns`);
  }
});

test("a calm link plays every sample once, in order, untouched", () => {
  const { all, buffer } = play({ frames: 200, every: 1 });
  const start = all.indexOf(Math.fround(mark(0)));
  assert.ok(start > 0 && start <= (TUNING.floorMs + 1) * MS, `started after ${start} samples`);
  const sent = Array.from({ length: 200 }, (_, n) => Array.from(speech(n))).flat();
  assert.deepEqual(all.slice(start, start + sent.length), sent);
  assert.equal(buffer.cut + buffer.added + buffer.underruns, 0);
});

test("it shrinks back once the link is calm, and the delay never drifts", () => {
  const rough = random(2);
  const cases = [
    // name, link, median delay in the last 10 s at most (ms), most ever queued (ms), whether
    // every frame plays (what is cut or added goes in the pauses); 60 s unless the link says
    ["calm after 10 s of 60 ms jitter", { lateMs: (n) => (n < 500 ? 60 * rough() : 0) }, 30, 120, true],
    ["a talker's clock 0.5% fast", { pace: 0.995, lateMs: () => 2 * rough() }, 40, 60, true],
    ["0.5% fast, never a pause", { pace: 0.995, content: tone }, 40, 60, false],
    ["0.1% slow for 5 minutes", { pace: 1.001, lateMs: () => 2 * rough(), frames: 15000 }, 30, 60, true],
    ["a 1 s stall, then all of it at once", { lateMs: (n) => (n >= 250 && n < 300 ? (300 - n) * 20 : 0) },
      30, TUNING.limitMs, false],
  ];
  for (const [name, link, most, queuedMs, whole] of cases) {
    const r = play({ frames: 3000, ...link });
    const frames = r.played.length;
    if (whole) assert.equal(r.played.filter((x) => x !== undefined).length, frames, `${name}: frames cut`);
    assert.deepEqual(r.underruns.filter((at) => at > 20), [], `${name}: underruns after 20 s`);
    const late = span(r, frames / 50 - 10, frames / 50);
    assert.ok(late.length > 400, `${name}: ${late.length} heard`);
    assert.ok(median(late) <= most, `${name}: median delay ${median(late)} ms at the end`);
    assert.ok(r.queuedMs <= queuedMs, `${name}: ${r.queuedMs} ms queued`);
  }
});
