// The pages' shared link to the server, with a scripted WebSocket and a fake clock: the backoff,
// the banner, the dead-link watchdogs (silence, an answer overdue) and the back/forward cache.
import assert from "node:assert/strict";
import { test } from "node:test";
import { FakeTime } from "./fake-time.mjs";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { PATHS } = await load("shared/constants.js");
const { Connection } = await load("shared/connection.js");

class FakeSocket {
  static OPEN = 1;
  constructor(url) {
    Object.assign(this, { url, readyState: 0, bufferedAmount: 0, sent: [], closed: false });
    FakeSocket.made.push(this);
  }
  send(data) { this.sent.push(data); }
  close() { this.closed = true; }
  open() { this.readyState = FakeSocket.OPEN; this.onopen?.(); }
  fail() { this.closed = true; this.onclose?.(); }
}

const LOST = "Connection lost — reconnecting…";
const UNREACHABLE = "Cannot reach the intercom — retrying…";
const showing = (link) => (link.banner().hidden ? "" : link.banner().text);

function setUp(t, options = {}, protocol = "https:") {
  const time = new FakeTime(0);
  FakeSocket.made = [];
  const window = new EventTarget();
  const calls = [];
  const link = new Connection(PATHS.intercom, {
    deadMs: 8000, checkEveryMs: 2000,
    onOpen: () => calls.push("open"), onLost: () => calls.push("lost"), onHide: () => calls.push("hide"),
    ...options,
  }, {
    WebSocket: FakeSocket, location: { protocol, host: "backstage:50505" }, window,
    now: time.now, timers: time,
  });
  link.start();
  const latest = () => FakeSocket.made.at(-1);
  const page = (type, persisted) => window.dispatchEvent(Object.assign(new Event(type), { persisted }));
  return { link, calls, latest, page, tick: (ms) => time.tick(ms) };
}

test("retries with a doubling delay up to 5 s, from the start again once connected", (t) => {
  const { link, latest, tick } = setUp(t);
  assert.equal(latest().url, `wss://backstage:50505${PATHS.intercom}`);
  assert.equal(showing(link), "", "no banner on the first attempt");
  const attempts = (delays) => {
    for (const delay of delays) {
      const before = FakeSocket.made.length;
      latest().fail();
      tick(delay - 1);
      assert.equal(FakeSocket.made.length, before, `not before ${delay} ms`);
      tick(1);
      assert.equal(FakeSocket.made.length, before + 1, `after ${delay} ms`);
    }
  };
  attempts([500, 1000, 2000, 4000, 5000, 5000]);
  assert.equal(showing(link), UNREACHABLE);
  latest().open();
  assert.deepEqual([link.connected, showing(link)], [true, ""]);
  attempts([500, 1000]);
  assert.equal(showing(link), LOST);
});

test("plain http pages use ws:", (t) => {
  const { latest } = setUp(t, {}, "http:");
  assert.equal(latest().url, `ws://backstage:50505${PATHS.intercom}`);
});

test("a link that goes quiet is dead, even one that never finished its handshake", (t) => {
  const { link, calls, latest, tick } = setUp(t);
  const socket = latest();
  socket.open();
  for (let i = 0; i < 10; i++) {
    tick(1000);
    socket.onmessage({ data: "still here" });
  }
  assert.equal(socket.closed, false);
  tick(10000);
  assert.deepEqual([socket.closed, link.connected, showing(link)], [true, false, LOST]);
  tick(500);
  const hung = latest();
  assert.notEqual(hung, socket);
  tick(8000);
  assert.equal(hung.closed, false, "a handshake has as long as an open link");
  tick(2000);
  assert.ok(hung.closed, "a hanging handshake is given up");
  assert.deepEqual(calls, ["open", "lost", "lost"]);
});

test("a ping unanswered for replyMs is a dead link; a ping sent late is not", (t) => {
  const { link, latest, tick } = setUp(t, { replyMs: 1000, checkEveryMs: 250 });
  const socket = latest();
  socket.open();
  // [ms to wait, then: "ping" (awaitReply) | "answer" | null, the socket still open after it]
  const steps = [
    [1900, "ping", true], [900, "answer", true], // answered within the second
    [5000, null, true], // no ping for 5 s (a hidden tab's slowed timers): no answer is due
    [0, "ping", true], [600, "ping", true], // the older ping sets the deadline...
    [399, null, true], [251, null, false], // ...and it is noticed at the next check after 1 s
  ];
  for (const [ms, what, open] of steps) {
    tick(ms);
    if (what === "ping") link.awaitReply();
    if (what === "answer") socket.onmessage({ data: "pong" });
    assert.equal(!socket.closed, open, `after ${ms} ms then ${what}`);
  }
  tick(500);
  latest().open();
  tick(1500);
  assert.equal(latest().closed, false, "a new socket owes no answer for the old one's ping");
});

test("the monitor's link is live from its first good message, not the open", (t) => {
  const { link, latest } = setUp(t, { liveOnOpen: false, onMessage: () => link.live() });
  latest().open();
  assert.equal(link.connected, false);
  latest().onmessage({ data: "{}" });
  assert.equal(link.connected, true);
});

test("sends only on an open socket, and sheds past the backlog it is given", (t) => {
  const { link, latest } = setUp(t);
  assert.equal(link.send("early"), false);
  latest().open();
  latest().bufferedAmount = 1000;
  assert.deepEqual([link.send("a"), link.send("b", 999), link.send("c", 1000)], [true, false, true]);
  assert.deepEqual(latest().sent, ["a", "c"]);
});

test("steps aside in the back/forward cache and comes back at once", (t) => {
  const { link, calls, latest, page, tick } = setUp(t, { onHide: () => calls.push(link.send("bye")) });
  latest().fail();
  tick(500);
  latest().fail(); // the next try is due in 1 s
  page("pagehide");
  tick(60000);
  assert.equal(FakeSocket.made.length, 2, "no retries while hidden");
  page("pageshow", false);
  assert.equal(FakeSocket.made.length, 2, "a fresh load starts by itself");
  page("pageshow", true);
  assert.equal(FakeSocket.made.length, 3);
  latest().fail();
  tick(500);
  assert.equal(FakeSocket.made.length, 4, "the backoff starts over");

  const socket = latest();
  socket.open();
  calls.length = 0;
  page("pagehide");
  assert.deepEqual(calls, [true, "lost"], "goodbye goes out before the socket closes");
  assert.ok(socket.closed);
});
