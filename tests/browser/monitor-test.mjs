// The operator's monitor at a full crew, in Chromium, against the real server: 500 UDP crew
// members from addresses of their own, one talking and one losing a frame in five. The bad link
// comes first; a member is one line at 1280×720; a header's button sorts both ways, announced
// with aria-sort; the filter finds by name, role or channel; at a phone's width the page does not
// scroll sideways and still shows who talks and whose link is bad; behind an operator password,
// an announcement typed on the page reaches its channel's members as the announcer's frames.
// Nothing here is timed: what the page costs is bench/monitor-crew.mjs's business. Chromium's
// screenshots are the README's.
//
//   node monitor-test.mjs PARLAVOX WORKDIR [SCREENSHOT_DIR]
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, rmSync } from "node:fs";
import { join } from "node:path";
import { joinCrew, Member, startServer, talk } from "../../tools/devkit/browser/big-crew.mjs";
import { engines } from "../../tools/devkit/browser/engines.mjs";
import { load } from "../../tools/devkit/browser/pages.mjs";

const { ANNOUNCER_ID } = await load("shared/constants.js");
const { decode } = await load("station/protocol.js");

const [parlavox, workdir, screenshots] = process.argv.slice(2);
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
async function until(what, check) {
  for (const end = Date.now() + 30000; Date.now() < end; await sleep(100)) if (await check()) return;
  assert.fail(`timed out waiting for ${what}`);
}

rmSync(workdir, { recursive: true, force: true });
mkdirSync(workdir, { recursive: true });
const server = await startServer(parlavox, workdir);
const password = "Places please 5";
let browser, stop;
try {
  execFileSync(parlavox, ["--operator-password"], { cwd: workdir, input: `${password}\n` });
  await until("the password taken", () => server.output().includes("Operator password set"));
  const crew = await joinCrew(499, 50505);
  const odd = Object.assign(new Member(499), { name: 'Crew 499 "Q" \\ ✓' }); // the snapshot's escaping
  await odd.join(50505);
  crew.push(odd);
  const [talker, lossy] = [crew[1], crew[2]];
  stop = talk(talker, lossy);
  browser = await engines.chromium.launch({ credentials: { username: "op", password } });
  const page = await browser.open("https://127.0.0.1:50505/monitor?test", { width: 1280, height: 720 });
  const byId = new Map(crew.map((m) => [String(m.crew.id), m]));
  const shown = async () => (await page.evaluate(() => window.parlavoxMonitor.order())).map((id) => byId.get(id).name);
  const sortedBy = () => page.evaluate(() => [...document.querySelectorAll("th[aria-sort]")]
    .map((th) => `${th.querySelector("button").dataset.sort} ${th.getAttribute("aria-sort")}`).join());

  // Problems first: the lossy link rises to the top by itself, graded bad; and one line each.
  await until("500 rows, the lossy link first", async () => (await shown()).length === 500 && (await shown())[0] === lossy.name);
  assert.equal(await sortedBy(), "link descending");
  assert.equal(await page.text("#crew tr:first-child .health"), "Bad");
  await until("the header's counts", async () => // "talking" is the last 300 ms: a stall of ours may miss it
    /^500 joined · 2 talking · [1-9]\d* links? with warnings$/.test(await page.text("#counts")));
  const heights = await page.evaluate(() => [...document.querySelectorAll("#crew tr")]
    .map((tr) => tr.getBoundingClientRect()).filter((r) => r.top >= 0 && r.bottom <= innerHeight).map((r) => r.height));
  assert.ok(heights.length >= 15 && new Set(heights).size === 1, `rows on screen: ${heights}`);
  if (screenshots) await page.screenshot(join(screenshots, "monitor-500.png"));

  // Each heading sorts, first the way that needs a look, then the other.
  const names = crew.map((m) => m.name).sort(new Intl.Collator(undefined, { numeric: true }).compare);
  for (const [column, expected, first] of [
    ["name", "name ascending", names], ["name", "name descending", [...names].reverse()],
    ["loss", "loss descending", [lossy.name]], ["link", "link descending", [lossy.name]],
  ]) {
    await page.click(`th button[data-sort="${column}"]`);
    assert.equal(await sortedBy(), expected);
    assert.deepEqual((await shown()).slice(0, first.length), first, expected);
  }

  // The filter: every word in a name, role or channel (the stage managers are on Fly too).
  for (const [query, keeps] of [["fly", (m) => m.role === "Fly" || m.role === "Stage Manager"],
    ["stage manager", (m) => m.role === "Stage Manager"], ["", () => true]]) {
    await page.fill("#filter", query);
    assert.deepEqual((await shown()).sort(), crew.filter(keeps).map((m) => m.name).sort(), query);
  }

  // A phone: nothing sideways; the bad link's light, grade and loss in sight.
  await page.resize(390, 844);
  assert.deepEqual(await page.evaluate(() => {
    const inSight = (sel) => [...document.querySelectorAll(sel)]
      .filter((el) => el.getBoundingClientRect().width > 0 && el.getBoundingClientRect().right <= innerWidth).length;
    const { scrollWidth, clientWidth } = document.documentElement;
    return [scrollWidth - clientWidth, document.querySelector("#crew .health").textContent,
      inSight("#crew tr:first-child .loss"), inSight("#crew tr:first-child .dot")];
  }), [0, "Bad", 1, 1]);
  if (screenshots) await page.screenshot(join(screenshots, "monitor-500-phone.png"));

  // An announcement on Sound: the page shows the answer and lists it; a Sound member hears the
  // announcer's frames, speech and not silence, and a Lighting member none of them.
  const heard = (role) => {
    const frames = [];
    crew.find((m) => m.role === role).crew.socket.on("message", (data) => {
      const frame = decode(data);
      if (frame?.kind === "audio" && frame.sender === ANNOUNCER_ID) frames.push(frame);
    });
    return frames;
  };
  const [sound, lighting] = [heard("Sound"), heard("Lighting")];
  await page.fill("#announce-text", "Places please");
  await page.select("#announce-channel", "Sound");
  await page.click("#announce-form button[type=submit]");
  await until("the server's answer", async () => (await page.text("#actions-status")) === "Announcing on Sound.");
  await until("the announcement listed", async () => (await page.text("#history")) === "Places please · SoundAnnounce again");
  await until("25 of the announcer's frames on Sound", () => sound.length >= 25);
  assert.ok(sound.some((f) => f.samples.some((s) => Math.abs(s) > 0.05)), "speech, not silence");
  assert.equal(lighting.length, 0);
  assert.deepEqual(await page.errors(), []);
  crew.forEach((m) => m.leave());
  console.log("monitor at 500 crew: worst link first, one line each, sorted, filtered, fits a phone, announces");
} finally {
  stop?.();
  await browser?.close();
  await server.stop();
}
process.exit();
