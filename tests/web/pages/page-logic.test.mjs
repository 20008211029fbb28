// The pages' small pieces of logic: push-to-talk, the monitor's link grades, the test hook's ring.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "./web-root.mjs";

const { LINK_GRADES } = await load("shared/constants.js");
const { TAP_MS, TalkKey } = await load("station/talk-key.js");
const { linkFigures } = await load("monitor/format.js");
const { SampleRing } = await load("station/test-hook.js");

test("push-to-talk: hold is momentary, a tap latches, the next tap releases", () => {
  // [action, ms, talking after it]
  const cases = {
    hold: [["press", 0, true], ["release", 1000, false]],
    tap: [["press", 0, true], ["release", TAP_MS - 1, true], ["press", 900, false],
      ["release", 950, false], ["press", 2000, true], ["release", 3000, false]],
    "just too long for a tap": [["press", 0, true], ["release", TAP_MS, false]],
    "finger slides off": [["press", 0, true], ["cancel", 10, false], ["release", 20, false]],
    "a cancel keeps a latch": [["press", 0, true], ["release", 10, true], ["cancel", 20, true]],
    "unlatching press slides off": [["press", 0, true], ["release", 10, true], ["press", 50, false],
      ["cancel", 60, false], ["press", 100, true], ["release", 1000, false]],
    "space over a latch": [["press", 0, true], ["release", 10, true], ["spaceDown", 50, true],
      ["spaceUp", 90, true], ["press", 100, false]],
    "space alone": [["spaceDown", 0, true], ["spaceUp", 10, false]],
    "blur lets go of keys, not of a latch": [["press", 0, true], ["release", 10, true],
      ["spaceDown", 20, true], ["blur", 30, true], ["stop", 40, false]],
    "blur ends a hold": [["spaceDown", 0, true], ["press", 10, true], ["blur", 20, false],
      ["release", 30, false]],
  };
  for (const [name, steps] of Object.entries(cases)) {
    const key = new TalkKey();
    for (const [action, ms, talking] of steps) {
      key[action](ms);
      assert.equal(key.active, talking, `${name}: ${action} at ${ms} ms`);
    }
  }
});

test("the monitor grades each link figure by its own thresholds", () => {
  const fields = { loss: "loss", jitterMs: "jitter", lastHeardMs: "seen" };
  const peerField = { loss: "loss", jitterMs: "jitterMs", lastHeardMs: "lastSeenMs" };
  for (const [name, { warn, bad }] of Object.entries(LINK_GRADES)) {
    assert.ok(warn < bad, name);
    const below = warn - (bad - warn) / 2;
    const above = bad + (bad - warn) / 2;
    const cases = [[below, "ok"], [warn, "warn"], [bad, "warn"], [above, "bad"], [null, "ok"]];
    for (const [value, expected] of cases) {
      const figures = linkFigures({ [peerField[name]]: value });
      assert.equal(figures[fields[name]].grade, expected, `${name} ${value}`);
      const others = Object.entries(figures).filter(([field]) => field !== fields[name]);
      assert.ok(others.every(([, f]) => f.grade === "ok" && f.text === "—"),
        `${name} ${value} touches only its own column`);
    }
  }
  const shown = linkFigures({ loss: 0.05, jitterMs: 12.34, lastSeenMs: 4500 });
  assert.deepEqual(Object.values(shown).map((f) => f.text), ["5.0 %", "12.3 ms", "4 s ago"]);
});

test("the heard ring keeps the latest samples, oldest first", () => {
  const ring = new SampleRing(4);
  const cases = [ // pushed, then held
    [[], []], [[1, 2], [1, 2]], [[3], [1, 2, 3]], [[4, 5, 6], [3, 4, 5, 6]],
    [[7, 8, 9, 10, 11], [8, 9, 10, 11]],
  ];
  for (const [push, latest] of cases) {
    ring.push(new Float32Array(push));
    assert.deepEqual(Array.from(ring.latest()), latest, `after ${push}`);
  }
});
