// Calls and announcements at the station, without a browser: what the session makes of them, the
// list of calls waiting (answered, dismissed, expired) and the announcements' history.
import assert from "node:assert/strict";
import { test } from "node:test";
import { FakeTime } from "./fake-time.mjs";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { ANNOUNCER_ID, MessageType: T } = await load("shared/constants.js");
const { decode, encodeControl } = await load("station/protocol.js");
const { Session } = await load("station/session.js");
const { CALL_MS, CALLS_KEPT, CallList, SHOW_CONTROL, callerName } = await load("station/calls.js");
const { ANNOUNCEMENTS_KEPT, AnnouncementLog } = await load("station/announcements.js");

test("the session passes on calls and announcements on channels we hear, and calls out", () => {
  const sent = [];
  const session = new Session({ send: (bytes) => sent.push(decode(bytes).message), timers: new FakeTime() });
  session.opened();
  session.join("Ann", "Sound");
  session.receive(encodeControl({ t: T.welcome, id: 7, role: "Sound", talkMask: 0b101, listenMask: 0b110 }));
  const cases = [
    // from the server, what the page is told (null: nothing)
    [{ t: T.call, id: 3, mask: 0b111 }, { type: T.call, caller: 3, mask: 0b110 }],
    [{ t: T.call, id: ANNOUNCER_ID, mask: 0b010 }, { type: T.call, caller: ANNOUNCER_ID, mask: 0b010 }],
    [{ t: T.call, id: 3, mask: 0b001 }, null], // not a channel we hear
    [{ t: T.call, id: 7, mask: 0b010 }, null], // ourselves
    [{ t: T.call, id: "3", mask: 0b010 }, null],
    [{ t: T.announce, text: "Places, please", mask: 0b100 }, { type: T.announce, text: "Places, please", mask: 0b100 }],
    [{ t: T.announce, text: " ", mask: 0b100 }, null],
    [{ t: T.announce, text: ["Places"], mask: 0b100 }, null],
  ];
  for (const [message, event] of cases) assert.deepEqual(session.receive(encodeControl(message)), event, JSON.stringify(message));
  sent.length = 0;
  assert.deepEqual([session.call(2), session.call(1)], [true, false], "only on a channel we talk on");
  assert.deepEqual(sent, [{ t: T.call, mask: 0b100 }]);
  session.closed();
  assert.equal(session.call(2), false, "not while the link is down");
  assert.equal(session.receive(encodeControl(cases[0][0])), null, "nothing while unjoined");
});

test("a call waits until answered by a talk on its channel, dismissed, or CALL_MS old", () => {
  // Steps: [action, ...arguments, the callers listed after it, newest first]. talk: the mask our
  // voice goes out on, and whether the talk key is pressed.
  const cases = {
    "expires": [["add", 3, 0b010, [3]], ["tick", CALL_MS - 1, [3]], ["tick", 1, []]],
    "a talk that starts answers its channels' calls": [["add", 3, 0b010, [3]], ["add", 4, 0b100, [4, 3]],
      ["talk", 0b011, true, [4]], ["talk", 0b111, true, []]],
    "a talk under way does not, a new press over the latch does": [["talk", 0b010, true, []],
      ["add", 3, 0b010, [3]], ["talk", 0b010, false, [3]], ["talk", 0b010, true, []]],
    "talking on other channels does not": [["add", 3, 0b010, [3]], ["talk", 0b101, true, [3]], ["talk", 0, false, [3]]],
    "dismissed": [["add", 3, 0b010, [3]], ["add", 4, 0b010, [4, 3]], ["dismiss", 3, [4]], ["dismiss", 4, []]],
    "called again, made anew": [["add", 3, 0b010, [3]], ["add", 4, 0b010, [4, 3]], ["tick", CALL_MS / 2, [4, 3]],
      ["add", 3, 0b010, [3, 4]], ["tick", CALL_MS / 2, [3]], ["add", 3, 0b100, [3, 3]]],
    "only the latest few": [...Array(CALLS_KEPT + 2).keys()].map((id) => ["add", id, 0b1,
      [...Array(Math.min(id + 1, CALLS_KEPT)).keys()].map((k) => id - k)]),
  };
  for (const [name, steps] of Object.entries(cases)) {
    const time = new FakeTime();
    let told = [];
    const calls = new CallList({ now: time.now, timers: time, onChange: () => (told = calls.calls.map((c) => c.caller)) });
    const run = {
      add: (caller, mask) => calls.add(caller, mask, null),
      tick: (ms) => time.tick(ms),
      talk: (mask, pressing) => calls.talked(mask, pressing),
      dismiss: (caller) => calls.dismiss(calls.calls.find((c) => c.caller === caller).key),
    };
    for (const [action, ...args] of steps) {
      const after = args.pop();
      run[action](...args);
      const callers = calls.calls.map((c) => c.caller);
      assert.deepEqual([callers, told], [after, after], `${name}: ${action} ${args} (listed, and told the page)`);
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
  const times = [[9, 5], [12, 0], [23, 59], [0, 0], [7, 30], [19, 45]];
  times.forEach(([h, m], i) => log.add(`words ${i}`, new Date(2026, 5, 1, h, m, 59)));
  assert.equal(ANNOUNCEMENTS_KEPT, 5);
  assert.deepEqual(log.entries.map((e) => `${e.time} ${e.text}`),
    ["19:45 words 5", "07:30 words 4", "00:00 words 3", "23:59 words 2", "12:00 words 1"]);
});
