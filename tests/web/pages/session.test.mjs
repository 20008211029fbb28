// The station's session against the generated wire constants: what it says to the server and
// when, what it makes of what the server says (calls and announcements too), and how its audio
// goes out.
import assert from "node:assert/strict";
import { test } from "node:test";
import { FakeTime } from "./fake-time.mjs";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { ANNOUNCER_ID, Feature, KEEPALIVE_MS, MessageType } = await load("shared/constants.js");
const { decode, encodeAudio, encodeControl } = await load("station/protocol.js");
const { LIT_MS, Session } = await load("station/session.js");

const T = MessageType;
const frame = new Float32Array([0.5, -0.25]);
const fromServer = (message) => encodeControl(message);
const joinAnn = { t: T.join, name: "Ann", role: "Sound", features: [Feature.call, Feature.text, Feature.removed] };
const welcome = { t: T.welcome, id: 7, role: "Sound", talkMask: 0b101, listenMask: 0b110 };

// A session whose control messages and audio land in `out`, decoded; shed(): audio is refused.
function station(t) {
  const time = new FakeTime(1000);
  const out = [];
  let shedding = false;
  const session = new Session({
    send: (bytes) => out.push(decode(bytes).message),
    sendAudio: (bytes) => !shedding && out.push(decode(bytes)) > 0,
    now: time.now,
    timers: time,
    awaitReply: () => out.push("awaiting a reply"),
  });
  const take = () => out.splice(0);
  return { session, take, shed: (on) => (shedding = on), tick: (ms) => time.tick(ms) };
}

function joined(t) {
  const st = station(t);
  st.session.opened();
  st.session.receive(fromServer({ t: T.config, channels: ["Main", "Tech", "Stage"], roles: [] }));
  st.session.join("Ann", "Sound");
  assert.equal(st.session.receive(fromServer(welcome)).type, T.welcome);
  st.take();
  return st;
}

test("joins, keeps alive, and puts itself back after a rejoin request or a drop", (t) => {
  const { session, take, tick } = station(t);
  session.opened();
  assert.deepEqual(take(), [{ t: T.hi }]);
  tick(3 * KEEPALIVE_MS - 1);
  const ping = [{ t: T.ping }, "awaiting a reply"];
  assert.deepEqual(take(), [...ping, ...ping]);
  tick(1);
  assert.deepEqual(take(), ping);

  const config = { t: T.config, channels: ["Main"], roles: [{ name: "Sound" }, {}] };
  assert.equal(session.receive(fromServer(config)).type, T.config);
  assert.deepEqual(session.config, { channels: ["Main"], roles: [{ name: "Sound" }] });
  assert.deepEqual(take(), [], "nobody asked to join yet");
  session.join("Ann", "Sound");
  assert.deepEqual(take(), [joinAnn]);
  session.receive(fromServer(welcome));
  const { joined, screen, id, role, talkMask, listenMask } = session;
  assert.deepEqual([joined, screen, id, role, talkMask, listenMask],
    [true, "station", 7, "Sound", 0b101, 0b110]);

  assert.equal(session.receive(fromServer({ t: T.rejoin })).type, T.rejoin);
  assert.equal(session.joined, false);
  assert.deepEqual(take(), [joinAnn]);

  session.receive(fromServer(welcome));
  session.closed();
  assert.deepEqual([session.joined, session.screen], [false, "station"], "a drop keeps the station up");
  tick(2 * KEEPALIVE_MS);
  assert.deepEqual(take(), [], "no keepalive while the link is down");
  session.join("Ann", "Sound");
  assert.deepEqual(take(), [], "no join while the link is down");
  session.opened();
  session.receive(fromServer({ t: T.config, channels: ["Main"], roles: [] }));
  assert.deepEqual(take(), [{ t: T.hi }, joinAnn]);
});

test("leaving, closing the page and refusals", (t) => {
  const { session, take } = joined(t);
  session.farewell();
  assert.deepEqual(take(), [{ t: T.bye }]);
  session.leave();
  assert.deepEqual(take(), [{ t: T.bye }]);
  assert.deepEqual([session.want, session.joined, session.screen, session.roster],
    [null, false, "join", []]);
  assert.equal(session.receive(fromServer(welcome)), null, "a welcome after Leave is declined");
  assert.deepEqual(take(), [{ t: T.bye }]);
  session.farewell();
  assert.deepEqual(take(), [], "nothing to say goodbye to");

  const refusals = [["Name taken", "Name taken"], [undefined, "The intercom refused to let us join."]];
  for (const [reason, shown] of refusals) {
    session.join("Ann", "Sound");
    session.receive(fromServer(welcome));
    const event = session.receive(fromServer({ t: T.error, reason }));
    assert.deepEqual(event, { type: T.error, reason: shown });
    assert.deepEqual([session.want, session.joined, session.screen], [null, false, "join"]);
  }
  assert.equal(session.receive(new Uint8Array([0xee, 1, 2])), null, "unknown datagrams are dropped");
  assert.equal(session.receive(fromServer({ t: T.pong })), null);
});

test("hears who talks, on which channels, lit for a moment after their last frame", (t) => {
  const { session, tick } = joined(t);
  const users = [{ id: 7, name: "Ann", role: "Sound" }, null, { id: 3, name: "Bo", role: "Lx" }];
  session.receive(fromServer({ t: T.roster, users }));
  const cases = [
    // sender, mask in the datagram, channels heard on (null: ignored)
    [3, 0b010, [1]],
    [3, 0b110, [1, 2]],
    [ANNOUNCER_ID, 0b100, [2]],
    [7, 0b010, null], // our own voice back
  ];
  for (const [i, [sender, mask, channels]] of cases.entries()) {
    const event = session.receive(encodeAudio(sender, mask, 65534 + i, frame));
    if (!channels) {
      assert.equal(event, null, `from ${sender}`);
      continue;
    }
    assert.deepEqual({ ...event, samples: Array.from(event.samples) },
      { type: "audio", sender, channels, seq: (65534 + i) % 65536, samples: [0.5, -0.25] });
  }
  assert.deepEqual(session.hearing(), [1, 2]);
  tick(100);
  assert.deepEqual([...session.heardWithin(LIT_MS)], [[3, 100], [ANNOUNCER_ID, 100]]);
  assert.deepEqual(session.rosterView().map((u) => [u.id, u.you, u.talking]),
    [[7, true, false], [3, false, true]]);
  assert.equal(session.isTalking(ANNOUNCER_ID), true);
  tick(LIT_MS - 101);
  assert.equal(session.isTalking(3), true);
  tick(1);
  assert.deepEqual([session.isTalking(3), session.isTalking(ANNOUNCER_ID), session.hearing()],
    [false, false, []]);
  session.talking = true;
  assert.equal(session.rosterView()[0].talking, true, "we are lit while our microphone is out");
  assert.deepEqual([...session.heardWithin(LIT_MS)], [[7, 0]]);
  assert.deepEqual([...session.heardWithin(2000)].map(([id]) => id), [3, ANNOUNCER_ID, 7]);
  tick(60000);
  session.talking = false;
  session.heardWithin(LIT_MS);
  assert.deepEqual([...session.heardWithin(Infinity)], [], "a minute's silence is forgotten");

  session.closed();
  assert.equal(session.receive(encodeAudio(3, 0b010, 0, frame)), null, "nothing is heard unjoined");
  assert.equal(session.isTalking(3), false);
});

test("sends numbered audio while talking on a channel, and only then", (t) => {
  const { session, take, shed } = joined(t);
  const send = () => session.sendFrame(frame);
  const wire = () => take().map((d) => [d.sender, d.mask, d.seq]);

  assert.equal(send(), false, "not talking");
  session.talking = true;
  assert.deepEqual([send(), send(), send()], [true, true, true]);
  assert.deepEqual(wire(), [[7, 0b101, 0], [7, 0b101, 1], [7, 0b101, 2]]);

  session.toggle(0);
  send();
  session.toggle(2);
  assert.equal(send(), false, "every talk channel switched off");
  session.toggle(0);
  send();
  assert.deepEqual(wire(), [[7, 0b100, 3], [7, 0b001, 4]]);

  shed(true);
  assert.equal(send(), false);
  shed(false);
  send();
  session.seq = 0xfffe;
  send();
  send();
  send();
  assert.deepEqual(wire().map(([, , seq]) => seq), [5, 0xfffe, 0xffff, 0],
    "a shed frame takes no number; seq wraps");
  assert.equal(session.sent, 9);

  // The switched-off channels survive a reconnect to the same show, not a new layout.
  session.receive(fromServer({ t: T.config, channels: ["Main", "Tech", "Stage"], roles: [] }));
  assert.equal(session.talkChannels(), 0b001);
  session.receive(fromServer({ t: T.config, channels: ["Main", "Stage"], roles: [] }));
  assert.equal(session.talkChannels(), 0b101);
  session.toggle(0);
  session.join("Ann", "Sound");
  assert.equal(session.talkChannels(), 0b101, "a new Join starts with every channel on");
});

test("passes on calls and announcements on channels we hear, and calls on those we talk on", (t) => {
  const { session, take } = joined(t);
  const cases = [
    // from the server, what the page is told (null: nothing)
    [{ t: T.call, id: 3, mask: 0b111 }, { type: T.call, caller: 3, mask: 0b110 }],
    [{ t: T.call, id: ANNOUNCER_ID, mask: 0b010 }, { type: T.call, caller: ANNOUNCER_ID, mask: 0b010 }],
    [{ t: T.call, id: 3, mask: 0b001 }, null], // not a channel we hear
    [{ t: T.call, id: 7, mask: 0b010 }, null], // ourselves
    [{ t: T.call, id: "3", mask: 0b010 }, null],
    [{ t: T.announce, text: "Places", mask: 0b100 }, { type: T.announce, text: "Places", mask: 0b100 }],
    [{ t: T.announce, text: " ", mask: 0b100 }, null],
    [{ t: T.announce, text: ["Places"], mask: 0b100 }, null],
  ];
  for (const [message, event] of cases) assert.deepEqual(session.receive(fromServer(message)), event, JSON.stringify(message));
  assert.deepEqual([session.call(2), session.call(1), take()], [true, false, [{ t: T.call, mask: 0b100 }]]);
  session.closed();
  assert.deepEqual([session.call(2), session.receive(fromServer(cases[0][0]))], [false, null], "not while off the link");
});
