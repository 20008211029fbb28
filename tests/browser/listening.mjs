// What the station plays, measured at its output (the test hook's tap after the master volume),
// against UDP crew members whose every frame the test times: per-channel listening as the user
// sets it, the delay from a talker to the page's output, and how the page's jitter buffer fares
// when the link and the machine are busy. `evaluate(fn, arg)` runs fn in the station's page.
import assert from "node:assert/strict";
import { performance } from "node:perf_hooks";
import { load } from "../../tools/devkit/browser/pages.mjs";
import { FRAME_MS, sine, UdpCrew } from "../../tools/devkit/browser/udp-crew.mjs";

const { FRAME_SAMPLES, SAMPLE_RATE } = await load("shared/constants.js");

// The delay run: a marker (a 1 kHz burst, one frame long) every MARK_EVERY frames, silence
// between; settling, then calm, then loaded: each frame goes out up to LATE_MS late at random and
// every STALL_EVERY frames one is held STALL_MS (as a busy Wi-Fi link does), while the page's main
// thread is kept busy for JANK_MS of every JANK_EVERY_MS (a slow phone).
const MARK_EVERY = 15;
const PHASES = { settle: 50, calm: 250, loaded: 300 };
const LOAD = { LATE_MS: 20, STALL_EVERY: 150, STALL_MS: 60, JANK_MS: 25, JANK_EVERY_MS: 100 };

// Two talkers, each a tone on a channel of its own; the user's moves on the page's listen
// toggles and levels, then the level of each tone in what the page plays (1: as at the start).
const TONES = [{ role: "Lighting", channel: 0, hz: 440 }, { role: "Backstage Crew", channel: 2, hz: 660 }];
const MOVES = [
  [[], [1, 1]],
  [[["toggle", 0]], [0, 1]],
  [[["toggle", 0], ["level", 2, 25]], [1, 0.25]],
  [[["level", 0, 50], ["level", 2, 100]], [0.5, 1]],
];

// The amplitude of the `hz` component of `samples` (Goertzel), the highest over 50 ms windows:
// a jitter buffer's gap in one of them does not count.
function amplitude(samples, hz) {
  const w = (2 * Math.PI * hz) / SAMPLE_RATE;
  const window = SAMPLE_RATE / 20;
  let best = 0;
  for (let start = 0; start + window <= samples.length; start += window) {
    let [s1, s2] = [0, 0];
    for (const x of samples.slice(start, start + window)) [s1, s2] = [x + 2 * Math.cos(w) * s1 - s2, s1];
    best = Math.max(best, (2 * Math.sqrt(s1 * s1 + s2 * s2 - 2 * Math.cos(w) * s1 * s2)) / window);
  }
  return best;
}

// Moves the page's controls as a user would, finding them by their accessible names.
const move = ([what, channel, level]) => {
  const row = document.querySelector(`#listen li[data-bit="${channel}"]`);
  const name = row.querySelector("button").textContent;
  if (what === "toggle") return row.querySelector("button[aria-pressed]").click();
  const input = document.querySelector(`input[type=range][aria-label="${name} level"]`);
  input.value = level;
  input.dispatchEvent(new Event("input"));
};

// Returns, for each step of MOVES, the tones' levels heard and those expected.
export async function channelLevels(evaluate, port) {
  const crews = await Promise.all(TONES.map(({ role }) => UdpCrew.join(port, role, role)));
  const heard = [];
  for (const [moves, expected] of MOVES) {
    for (const m of moves) await evaluate(move, m);
    let output;
    await Promise.all(crews.map((crew, i) => crew.talk({
      mask: crew.talkMask & (1 << TONES[i].channel), frames: 60, frame: sine(TONES[i].hz, 0.4),
      at: (k) => i === 0 && k === 45 && (output = evaluate(() => parlavoxStation.output(0.5).samples)),
    })));
    const samples = await output;
    heard.push({ levels: TONES.map(({ hz }) => amplitude(samples, hz)), expected });
  }
  crews.forEach((crew) => crew.leave());
  const full = heard[0].levels;
  return heard.map(({ levels, expected }) => ({ levels: levels.map((a, i) => a / full[i]), expected }));
}

const percentile = (values, p) => [...values].sort((a, b) => a - b)[Math.floor(p * (values.length - 1))];

// Indices where sound starts after at least a frame of quiet.
function onsets(samples, threshold = 0.05) {
  const found = [];
  let quiet = FRAME_SAMPLES;
  samples.forEach((x, i) => {
    if (Math.abs(x) < threshold) return void quiet++;
    if (quiet >= FRAME_SAMPLES) found.push(i);
    quiet = 0;
  });
  return found;
}

// How far ahead of ours the page's clock runs (epoch milliseconds), from the quickest of a few
// round trips.
async function clockOffset(evaluate) {
  const now = () => performance.timeOrigin + performance.now();
  let best = { rtt: Infinity };
  for (let i = 0, before = now(); i < 10; i++, before = now()) {
    const theirs = await evaluate(() => performance.timeOrigin + performance.now());
    if (now() - before < best.rtt) best = { rtt: now() - before, offset: theirs - (before + now()) / 2 };
  }
  return best.offset;
}

// Each marker heard in `output` (the hook's), as its delay: from when it was due (`due`, epoch
// milliseconds on our clock) to when the page's output played it.
function markerDelays(output, due, offset) {
  const first = output.endFrame - output.samples.length;
  const played = (i) => output.timeOrigin + output.performanceTime - offset
    + ((first + i) / SAMPLE_RATE - output.contextTime) * 1000;
  return onsets(output.samples).map(played).flatMap((at) => {
    const marker = due.filter((d) => d <= at).pop();
    return marker !== undefined && at - marker < MARK_EVERY * FRAME_MS ? [at - marker] : [];
  });
}

// Returns {calm, loaded}: each {median, p90, markers, sent, underruns}.
export async function delayFigures(evaluate, port) {
  const crew = await UdpCrew.join(port, "Lighting", "Delay probe");
  const burst = sine(1000, 0.5);
  const silence = new Float32Array(FRAME_SAMPLES);
  const random = ((seed) => () => ((seed = (seed * 1103515245 + 12345) % 2 ** 31) / 2 ** 31))(7);
  const [calmFrom, loadFrom, end] = [0, PHASES.calm, PHASES.calm + PHASES.loaded].map((k) => k + PHASES.settle);
  const asked = {};
  const jank = ({ JANK_MS, JANK_EVERY_MS }) => (window.jank = setInterval(() => {
    for (const end = performance.now() + JANK_MS; performance.now() < end;);
  }, JANK_EVERY_MS));
  const dues = await crew.talk({
    mask: crew.talkMask & 1,
    frames: end + MARK_EVERY, // a tail, so that the loaded phase's figures are read mid-stream
    frame: (k) => (k % MARK_EVERY === 0 ? burst(k) : silence),
    lateMs: (k) => (k < loadFrom || k >= end ? 0
      : k % LOAD.STALL_EVERY === 0 ? LOAD.STALL_MS : random() * LOAD.LATE_MS),
    at: (k) => {
      if (k === calmFrom) asked.start = evaluate(() => parlavoxStation.playback());
      if (k === loadFrom) {
        asked.calm = evaluate(() => parlavoxStation.playback());
        evaluate(jank, LOAD);
      }
      if (k === end) {
        evaluate(() => clearInterval(window.jank));
        asked.loaded = evaluate(() => parlavoxStation.playback());
      }
    },
  });
  crew.leave();
  // Fetched once the stream is over: copying seconds of samples out would stall the page.
  const output = evaluate(() => parlavoxStation.output());
  const offset = await clockOffset(evaluate);
  const [start, calm, loaded] = [await asked.start, await asked.calm, await asked.loaded];
  const phase = async (from, to, before, after) => {
    const due = dues.filter((_, k) => k >= from && k < to && k % MARK_EVERY === 0);
    const delays = markerDelays(await output, due, offset);
    const f = { median: percentile(delays, 0.5), p90: percentile(delays, 0.9), markers: delays.length };
    // Only a sanity bound: the figure is reported, not held to.
    assert.ok(f.markers >= due.length * 0.8 && f.median > 0 && f.median < 250, JSON.stringify(f));
    return { ...f, sent: due.length, underruns: after.underruns - before.underruns };
  };
  return { calm: await phase(calmFrom, loadFrom, start, calm), loaded: await phase(loadFrom, end, calm, loaded) };
}

export const LOAD_TEXT = `frames up to ${LOAD.LATE_MS} ms late, one held ${LOAD.STALL_MS} ms every`
  + ` ${(LOAD.STALL_EVERY * FRAME_MS) / 1000} s, the page busy ${LOAD.JANK_MS} ms in every ${LOAD.JANK_EVERY_MS} ms`;
