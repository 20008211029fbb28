// The pages' small pieces of logic: push-to-talk, names, the crew list's order, the microphone help,
// per-channel listening, the monitor's link grades.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { ANNOUNCER_ID, LINK_GRADES, NAME_LIMIT } = await load("shared/constants.js");
const { Listening } = await load("station/listening.js");
const { TAP_MS, TalkKey } = await load("station/talk-key.js");
const { fitName, sameNameOnCrew } = await load("station/names.js");
const { arrangeCrew, roleMasks, sortCrew } = await load("station/crew.js");
const { micHelp } = await load("station/mic-help.js");
const { linkFigures } = await load("monitor/format.js");

test("push-to-talk works as a beltpack's talk key", () => {
  // [action, ms, what the key wants after it]: "off", "talk" (while held), "latched" (talks on
  // when everything is let go).
  const cases = {
    hold: [["press", 0, "talk"], ["release", 1000, "off"]],
    "tap, tap": [["press", 0, "talk"], ["release", TAP_MS - 1, "latched"], ["press", 900, "talk"],
      ["release", 950, "off"], ["press", 2000, "talk"], ["release", 3000, "off"]],
    "just too long for a tap": [["press", 0, "talk"], ["release", TAP_MS, "off"]],
    "held over a latch talks on, and the lift ends it": [["press", 0, "talk"], ["release", 10, "latched"],
      ["press", 100, "talk"], ["release", 5000, "off"]],
    "finger slides off": [["press", 0, "talk"], ["cancel", 10, "off"], ["release", 20, "off"]],
    "sliding off a press over a latch keeps the latch": [["press", 0, "talk"], ["release", 10, "latched"],
      ["press", 50, "talk"], ["cancel", 60, "latched"], ["press", 100, "talk"], ["release", 1000, "off"]],
    "space alone": [["spaceDown", 0, "talk"], ["spaceUp", 10, "off"]],
    "space over a latch ends it when let go": [["press", 0, "talk"], ["release", 10, "latched"],
      ["spaceDown", 50, "talk"], ["spaceUp", 90, "off"]],
    "Enter toggles, even while held": [["toggle", 0, "latched"], ["toggle", 10, "off"], ["press", 20, "talk"],
      ["toggle", 500, "latched"], ["release", 1000, "latched"], ["toggle", 1100, "off"]],
    "a click alone toggles; a tap's own click does not": [["click", 0, "latched"], ["click", 5000, "off"],
      ["press", 6000, "talk"], ["release", 6050, "latched"], ["cancel", 6055, "latched"], // a touch's leave
      ["click", 6060, "latched"], ["click", 9000, "off"]],
    "blur lets go of keys, not of a latch": [["press", 0, "talk"], ["release", 10, "latched"],
      ["blur", 30, "latched"], ["stop", 40, "off"]],
    "blur ends a hold": [["spaceDown", 0, "talk"], ["press", 10, "talk"], ["blur", 20, "off"],
      ["release", 30, "off"]],
    "blur during a press over a latch ends the talk its lift would have": [["press", 0, "talk"],
      ["release", 10, "latched"], ["press", 100, "talk"], ["blur", 200, "off"], ["release", 300, "off"]],
  };
  for (const [name, steps] of Object.entries(cases)) {
    const key = new TalkKey();
    for (const [action, ms, wants] of steps) {
      key[action](ms);
      const now = !key.active ? "off" : key.sticky ? "latched" : "talk";
      assert.equal(now, wants, `${name}: ${action} at ${ms} ms`);
    }
  }
});

test("a name is what the server keeps: trimmed, whole characters up to the limit", () => {
  const times = (text, n) => text.repeat(n);
  const cases = [
    // typed, kept while typing, kept when done
    ["  Ann  ", "Ann  ", "Ann"],
    [times("a", NAME_LIMIT + 5), times("a", NAME_LIMIT), times("a", NAME_LIMIT)],
    [times("a", NAME_LIMIT - 1) + " b", times("a", NAME_LIMIT - 1) + " ", times("a", NAME_LIMIT - 1)],
    [times("👩‍👩‍👧", NAME_LIMIT + 1), times("👩‍👩‍👧", NAME_LIMIT), times("👩‍👩‍👧", NAME_LIMIT)],
    [times("e\u0301", NAME_LIMIT + 3), times("e\u0301", NAME_LIMIT), times("e\u0301", NAME_LIMIT)],
    [times("🇫🇷", NAME_LIMIT + 2), times("🇫🇷", NAME_LIMIT), times("🇫🇷", NAME_LIMIT)],
  ];
  for (const [typed, typing, done] of cases) {
    assert.deepEqual([fitName(typed), fitName(typed, true)], [typing, done], typed);
  }

  const crew = [{ id: 1, name: "Ann", role: "Sound" }, { id: 2, name: "R\u00e9gie", role: "Lx" },
    { id: 3, name: "Bo Lee", role: "Fly" }];
  const taken = [
    // name, my id, who has it already
    ["ann", null, 1], ["Ann", 1, null], ["Re\u0301gie", null, 2], ["  bo   LEE ", null, 3],
    ["Anna", null, null], ["   ", null, null],
  ];
  for (const [name, me, id] of taken) {
    assert.equal(sameNameOnCrew(name, crew, me)?.id ?? null, id, `${name} as ${me}`);
  }
});

test("the crew list: talkers first, then us and who shares a channel with us, the rest apart", () => {
  const config = {
    channels: ["Main", "Tech", "Stage"],
    roles: [
      { name: "Sound", talk: ["Tech"], listen: ["Main", "Tech"] },
      { name: "Fly", talk: ["Stage"], listen: ["Stage"] },
      { name: "Lx", talk: ["Main"], listen: ["Stage"] }, // we hear them
      { name: "Director", talk: [], listen: ["Tech"] }, // they hear us
      { name: "Deck", talk: ["Stage"], listen: ["Main"] }, // both on Main, neither talks to the other
      { name: "R\u00e9gie", talk: ["Tech", "Nowhere"], listen: [] },
    ],
  };
  const masks = roleMasks(config);
  assert.deepEqual(masks.get("Lx"), { talk: 0b001, listen: 0b100 });
  const me = { id: 5, talkMask: 0b010, listenMask: 0b011 };
  const users = [
    { id: 5, name: "Zed", role: "Sound" }, { id: 1, name: "bob", role: "Fly" },
    { id: 2, name: "Al", role: "Lx" }, { id: 3, name: "Cy", role: "Director" },
    { id: 4, name: "Di", role: "Deck" }, { id: 6, name: "Ed", role: "Ghost" },
    { id: 7, name: "al", role: "Fly" }, { id: 8, name: "Flo", role: "Re\u0301gie" },
    { id: 9, name: "crew 10", role: "Fly" }, { id: 10, name: "crew 9", role: "Fly" },
  ];
  const sorted = sortCrew(users);
  const cases = [
    // talking, first (by id), rest
    [[], [5, 2, 3, 6, 8, ANNOUNCER_ID], [7, 1, 10, 9, 4]],
    [[1, 5], [1, 5, 2, 3, 6, 8, ANNOUNCER_ID], [7, 10, 9, 4]],
    [[ANNOUNCER_ID, 4, 2], [2, 4, ANNOUNCER_ID, 5, 3, 6, 8], [7, 1, 10, 9]],
  ];
  for (const [talking, first, rest] of cases) {
    const got = arrangeCrew(sorted, { me, masks, talking: new Set(talking) });
    assert.deepEqual([got.first.map((u) => u.id), got.rest.map((u) => u.id)], [first, rest], `talking ${talking}`);
  }
});

test("a blocked microphone: how to allow it, in the browser at hand", () => {
  const cases = [
    ["Mozilla/5.0 (iPhone; CPU iPhone OS 17_4 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.4 Mobile/15E148 Safari/604.1", "“aA”"],
    ["Mozilla/5.0 (iPhone; CPU iPhone OS 17_4 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) CriOS/124.0.6367.88 Mobile/15E148 Safari/604.1", "Settings › Chrome"],
    ["Mozilla/5.0 (iPad; CPU OS 17_4 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) FxiOS/125.0 Mobile/15E148 Safari/605.1.15", "Settings › Firefox"],
    ["Mozilla/5.0 (Linux; Android 14; SM-S918B) AppleWebKit/537.36 (KHTML, like Gecko) SamsungBrowser/24.0 Chrome/117.0.0.0 Mobile Safari/537.36", "Tap the lock in the address bar, then Permissions"],
    ["Mozilla/5.0 (Android 14; Mobile; rv:125.0) Gecko/125.0 Firefox/125.0", "allow the Microphone"],
    ["Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0", "crossed-out microphone"],
    ["Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/124.0.0.0 Mobile Safari/537.36", "Tap the icon left of the address"],
    ["Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/124.0.0.0 Safari/537.36 Edg/124.0.0.0", "Click the icon left of the address"],
    ["Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.4 Safari/605.1.15", "Settings for This Website"],
    ["Lynx/2.9", "site settings"],
  ];
  for (const [agent, says] of cases) {
    const help = micHelp(agent);
    assert.ok(help.includes(says) && help.endsWith("Try again."), `${agent}: ${help}`);
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

