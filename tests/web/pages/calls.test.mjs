// Calls and announcements at the station, without a browser: the list of calls waiting
// (answered, dismissed, expired) and the announcements' history.
import assert from "node:assert/strict";
import { test } from "node:test";
import { FakeTime } from "./fake-time.mjs";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { ANNOUNCER_ID } = await load("shared/constants.js");
const { CALL_MS, CALLS_KEPT, CallList, SHOW_CONTROL, callerName } = await load("station/calls.js");
const { AnnouncementLog } = await load("station/announcements.js");

test("a call waits until answered by a talk on its channel, dismissed, or CALL_MS old", () => {
  // Steps: [action, ...arguments, the callers listed after it, newest first]. talk: the mask our
  // voice goes out on, and whether the talk key is pressed.
  const cases = {
    "expires": [["add", 3, 0b010, [3]], ["tick", CALL_MS - 1, [3]], ["tick", 1, []]],
    "a talk that starts answers its channels' calls, not others'": [["add", 3, 0b010, [3]], ["add", 4, 0b100, [4, 3]],
      ["talk", 0b011, true, [4]], ["talk", 0b111, true, []]],
    "a talk under way does not, a new press over the latch does": [["talk", 0b010, true, []],
      ["add", 3, 0b010, [3]], ["talk", 0b010, false, [3]], ["talk", 0b010, true, []]],
    "dismissed": [["add", 3, 0b010, [3]], ["add", 4, 0b010, [4, 3]], ["dismiss", 3, [4]], ["dismiss", 4, []]],
    "called again, made anew": [["add", 3, 0b010, [3]], ["add", 4, 0b010, [4, 3]], ["tick", CALL_MS / 2, [4, 3]],
      ["add", 3, 0b010, [3, 4]], ["tick", CALL_MS / 2, [3]], ["add", 3, 0b100, [3, 3]]],
    "only the latest few": [...Array(CALLS_KEPT + 2).keys()].map((id) => ["add", id, 0b1,
      [...Array(Math.min(id + 1, CALLS_KEPT)).keys()].map((k) => id - k)]),
  };
  for (const [name, steps] of Object.entries(cases)) {
    const time = new FakeTime();
    let told = [];
    const calls = new CallList({ timers: time, onChange: () => (told = calls.calls.map((c) => c.caller)) });
    const run = {
      add: (caller, mask) => calls.add(caller, mask, null),
      tick: (ms) => time.tick(ms),
      talk: (mask, pressing) => calls.talked(mask, pressing),
      dismiss: (caller) => calls.dismiss(calls.calls.find((c) => c.caller === caller).key),
    };
    for (const [action, ...args] of steps) {
      const after = args.pop();
      run[action](...args);
      assert.deepEqual([calls.calls.map((c) => c.caller), told], [after, after], `${name}: ${action} ${args} (listed, told)`);
    }
  }
});

test("callers are named from the roster; waiting channels add up", () => {
  const calls = new CallList({ timers: new FakeTime() });
  const roster = [{ id: 3, name: "Lights" }];
  for (const [id, mask] of [[ANNOUNCER_ID, 0b1], [3, 0b10], [9, 0b110]]) calls.add(id, mask, callerName(id, roster));
  assert.deepEqual([calls.calls.map((c) => c.name), calls.waiting()], [[null, "Lights", SHOW_CONTROL], 0b111]);
});

test("the last few announcements are kept, newest first, at their local HH:MM", () => {
  const log = new AnnouncementLog();
  [[9, 5], [12, 0], [23, 59], [0, 0], [7, 30], [19, 45]]
    .forEach(([h, m], i) => log.add(`words ${i}`, new Date(2026, 5, 1, h, m, 59)));
  assert.deepEqual(log.entries.map((e) => `${e.time} ${e.text}`),
    ["19:45 words 5", "07:30 words 4", "00:00 words 3", "23:59 words 2", "12:00 words 1"]);
});
