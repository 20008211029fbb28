// The pages' small pieces of logic: push-to-talk, per-channel listening, the monitor's link
// grades.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "./web-root.mjs";

const { ANNOUNCER_ID, LINK_GRADES } = await load("shared/constants.js");
const { Listening } = await load("station/listening.js");
const { TAP_MS, TalkKey } = await load("station/talk-key.js");
const { linkFigures } = await load("monitor/format.js");

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

test("each datagram plays at the level of its loudest channel that is on; announcements always", () => {
  const listening = new Listening({ get: (key, fallback) => fallback, set: () => {} });
  listening.load("Hamlet", "Sound", [{ bit: 0, name: "Main" }, { bit: 2, name: "Stage" }, { bit: 5, name: "FOH" }]);
  [[0, { level: 80 }], [2, { on: false, level: 90 }], [5, { level: 40 }]].forEach((a) => listening.set(...a));
  listening.setAnnouncements(30);
  const cases = [ // sender, channels heard on, gain
    [4, [0], 0.8], [4, [2], 0], [4, [0, 2], 0.8], [4, [0, 5], 0.8], [4, [5], 0.4], [4, [1], 0],
    [ANNOUNCER_ID, [], 0.3], [ANNOUNCER_ID, [2], 0.3],
  ];
  for (const [sender, channels, gain] of cases) {
    assert.equal(listening.gain(sender, channels), gain, `${sender} on ${channels}`);
  }
  listening.set(0, { on: false });
  listening.setAnnouncements(0);
  assert.deepEqual([listening.gain(4, [0, 5]), listening.gain(4, [0, 2])], [0.4, 0]);
});

test("listening is remembered per show and role, by channel name", () => {
  const saved = new Map();
  const storage = { get: (key, fallback) => saved.get(key) ?? fallback, set: (key, v) => saved.set(key, v) };
  const main = [{ bit: 0, name: "Main" }, { bit: 1, name: "Tech" }];
  const settings = (l) => [...l.channels.map((c) => `${c.name} ${c.on ? "on" : "off"} ${c.level}`), l.announcements];
  const first = new Listening(storage);
  first.load("Hamlet", "Sound", main);
  [[0, { on: false, level: 150 }], [1, { level: -5 }]].forEach((a) => first.set(...a));
  first.setAnnouncements(55);
  const cases = [ // show, role, channels, settings found
    ["Hamlet", "Sound", main, ["Main off 100", "Tech on 0", 55]],
    ["Hamlet", "Lighting", main, ["Main on 100", "Tech on 100", 100]],
    ["Macbeth", "Sound", main, ["Main on 100", "Tech on 100", 100]],
    ["Hamlet", "Sound", [{ bit: 3, name: "Tech" }, { bit: 4, name: "Main" }], ["Tech on 0", "Main off 100", 55]],
  ];
  const found = (show, role, channels) => {
    const again = new Listening(storage);
    again.load(show, role, channels);
    return settings(again);
  };
  for (const [show, role, channels, expected] of cases) {
    assert.deepEqual(found(show, role, channels), expected, `${show}, ${role}`);
  }
  for (const junk of ["{", "null", "[1]", '{"channels":{"Main":7},"announcements":"loud"}']) {
    saved.set(first.key, junk);
    assert.deepEqual(found("Hamlet", "Sound", main), ["Main on 100", "Tech on 100", 100], junk);
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

