// Never silently off comms, without a browser: what the station shows for each thing that can go
// wrong, and its hold on the screen's wake lock through refusals and hidden spells.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { AlarmEdges, NO_WAKE_LOCK, assess } = await load("station/alarms.js");
const { LOST_TEXT } = await load("shared/connection.js");
const { ScreenLock } = await load("station/wake-lock.js");

test("each way off comms raises its alarm, says so in the status and stops talking", () => {
  const fine = { onStation: true, linkUp: true, joined: true, audio: "running", talking: false, wakeLock: "held", show: "Hamlet" };
  const cases = [
    // what differs from a joined station, alarms, status, may talk, crew list stale
    [{}, [], "Connected", true, false],
    [{ linkUp: false, joined: false }, ["link"], "Reconnecting…", false, true],
    [{ joined: false }, ["link"], "Joining…", false, true], // back on the link, not yet rejoined
    [{ audio: "suspended" }, ["audio"], "Audio stopped", false, false],
    [{ audio: "interrupted" }, ["audio"], "Audio stopped", false, false],
    [{ audio: null }, ["audio"], "Audio stopped", false, false],
    [{ linkUp: false, joined: false, audio: "closed" }, ["link", "audio"], "Reconnecting…", false, true],
    [{ onStation: false, joined: false, audio: null }, [], "Joining…", false, false], // the join screen
  ];
  for (const [differs, alarms, status, canTalk, crewStale] of cases) {
    const got = assess({ ...fine, ...differs });
    assert.deepEqual([got.alarms.map((a) => a.kind), got.status, got.canTalk, got.crewStale],
      [alarms, status, canTalk, crewStale], JSON.stringify(differs));
  }
  assert.deepEqual(assess({ ...fine, joined: false, audio: "suspended" }).alarms.map((a) => a.text),
    [LOST_TEXT, "Audio stopped — tap to restore"]);

  const titles = [
    [{}, "Hamlet"], [{ talking: true }, "🔴 Talking — Hamlet"], [{ audio: "suspended" }, "⚠️ Off comms — Hamlet"],
    [{ show: "" }, "Parlavox"],
  ];
  for (const [differs, title] of titles) assert.equal(assess({ ...fine, ...differs }).title, title);
  const notes = [["held", ""], ["asking", ""], ["released", ""], ["refused", NO_WAKE_LOCK], ["unsupported", NO_WAKE_LOCK]];
  for (const [wakeLock, note] of notes) assert.equal(assess({ ...fine, wakeLock }).wakeNote, note, wakeLock);
  assert.equal(assess({ ...fine, onStation: false, wakeLock: "refused" }).wakeNote, "");

  const edges = new AlarmEdges();
  const raised = [[["link"], ["link"]], [["link"], []], [[], []], [["audio", "link"], ["audio", "link"]], [["link"], []]];
  for (const [up, fresh] of raised) {
    assert.deepEqual(edges.raised(up.map((kind) => ({ kind }))), fresh, `up: ${up}`);
  }
});

// A browser's wake lock API: requests answered as the test says; its sentinels released at will.
class FakeBrowser {
  constructor() {
    this.document = Object.assign(new EventTarget(), { visibilityState: "visible" });
    this.requests = 0;
    this.refuse = false;
    this.held = null;
    this.navigator = {
      wakeLock: {
        request: async (type) => {
          assert.equal(type, "screen");
          this.requests++;
          if (this.refuse) throw new DOMException("not now", "NotAllowedError");
          this.held = Object.assign(new EventTarget(), { release: async () => this.drop() });
          return this.held;
        },
      },
    };
  }

  drop() {
    const sentinel = this.held;
    this.held = null;
    sentinel?.dispatchEvent(new Event("release"));
  }

  show(visible) {
    this.document.visibilityState = visible ? "visible" : "hidden";
    if (!visible) this.drop(); // browsers let go of the lock of a hidden page
    this.document.dispatchEvent(new Event("visibilitychange"));
  }
}

const settle = () => new Promise((done) => setImmediate(done));

test("the screen stays on while joined: asked again when shown, and on a tap after a refusal", async () => {
  const browser = new FakeBrowser();
  const lock = new ScreenLock(() => {}, browser);
  // [what happens, requests made so far, the lock's state, a sentinel held]
  const steps = [
    [() => {}, 0, "off", false],
    [() => lock.want(true), 1, "held", true],
    [() => browser.show(false), 1, "released", false],
    [() => browser.show(true), 2, "held", true],
    [() => { browser.refuse = true; browser.drop(); }, 3, "refused", false], // battery saver
    [() => browser.show(false), 3, "refused", false],
    [() => browser.show(true), 4, "refused", false],
    [() => lock.retry(), 5, "refused", false],
    [() => { browser.refuse = false; lock.retry(); }, 6, "held", true],
    [() => lock.retry(), 6, "held", true],
    [() => lock.want(false), 6, "off", false],
    [() => browser.show(true), 6, "off", false],
  ];
  for (const [i, [act, requests, state, held]] of steps.entries()) {
    act();
    await settle();
    assert.deepEqual([browser.requests, lock.state, Boolean(browser.held)], [requests, state, held], `step ${i}`);
  }

  // Leave while the browser is still deciding: the late lock is let go at once.
  lock.want(true);
  lock.want(false);
  await settle();
  assert.deepEqual([lock.state, Boolean(browser.held)], ["off", false]);

  const old = new ScreenLock(() => {}, { navigator: {}, document: browser.document });
  old.want(true);
  assert.equal(old.state, "unsupported");
});
