// The operator's monitor at a full crew, in Chromium, against the real server: 500 UDP crew
// members from addresses of their own, one talking and one losing a frame in five. The bad link
// comes first; a member is one line at 1280×720; a header's button sorts both ways, announced
// with aria-sort; the filter finds by name, role or channel; at a phone's width the page does not
// scroll sideways and still shows who talks and whose link is bad. Nothing here is timed: what the
// page costs is bench/monitor-crew.mjs's business. Chromium's screenshot is the README's.
//
//   node monitor-test.mjs PARLAVOX WORKDIR [SCREENSHOT_DIR]
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdirSync, rmSync, writeFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { joinCrew, show, talk } from "../../tools/devkit/browser/big-crew.mjs";
import { engines } from "../../tools/devkit/browser/engines.mjs";

const [parlavox, workdir, screenshots] = process.argv.slice(2);
const PORT = 50505;
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
async function until(what, check, ms = 30000) {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(100)) {
    if (await check()) return;
  }
  assert.fail(`timed out waiting for ${what}`);
}

rmSync(workdir, { recursive: true, force: true });
mkdirSync(workdir, { recursive: true });
writeFileSync(join(workdir, "roles.json"), JSON.stringify(show));
const server = spawn(resolve(parlavox), [], { cwd: workdir, stdio: ["ignore", "pipe", "inherit"] });
let out = "";
server.stdout.setEncoding("utf8").on("data", (text) => (out += text));
let browser, stop;
try {
  await until("the server", () => out.includes("Listening on UDP port"));
  const crew = await joinCrew(500, PORT);
  const [talker, lossy] = [crew[1], crew[2]];
  stop = talk(talker, lossy);
  browser = await engines.chromium.launch({});
  const page = await browser.open(`https://127.0.0.1:${PORT}/monitor?test`, { width: 1280, height: 720 });
  const monitor = (fn, arg) => page.evaluate(fn, arg);
  const order = () => monitor(() => window.parlavoxMonitor.order());
  const sortedBy = () => monitor(() => [...document.querySelectorAll("th[aria-sort]")]
    .map((th) => `${th.querySelector("button").dataset.sort} ${th.getAttribute("aria-sort")}`).join());
  const namesShown = () => monitor(() => [...document.querySelectorAll("#crew tr")].map((tr) => tr.querySelector(".name").textContent));
  const ids = new Map(crew.map((m) => [String(m.crew.id), m]));

  // Problems first: the lossy link rises to the top on its own, graded bad.
  await until("500 rows, the lossy link first", async () =>
    (await order()).length === 500 && ids.get((await order())[0]) === lossy);
  assert.equal(await sortedBy(), "link descending");
  assert.equal(await page.text("#crew tr:first-child .health"), "Bad");
  assert.match(await page.text("#counts"), /^500 joined · 2 talking · [1-9]\d* links? with warnings$/);

  // One line each: the rows on screen are all as tall as one, and many fit.
  const onScreen = await monitor(() => [...document.querySelectorAll("#crew tr")]
    .map((tr) => tr.getBoundingClientRect()).filter((r) => r.top >= 0 && r.bottom <= innerHeight)
    .map((r) => Math.round(r.height)));
  assert.ok(onScreen.length >= 15, `${onScreen.length} rows on screen`);
  assert.equal(new Set(onScreen).size, 1, `row heights ${[...new Set(onScreen)]}`);
  if (screenshots) await page.screenshot(join(screenshots, "monitor-500.png"));

  // Each header sorts, first the way that needs a look, then the other.
  const collator = new Intl.Collator(undefined, { numeric: true });
  const names = crew.map((m) => m.name).sort(collator.compare);
  const cases = [
    ["name", "name ascending", (shown) => assert.deepEqual(shown, names)],
    ["name", "name descending", (shown) => assert.deepEqual(shown, [...names].reverse())],
    ["loss", "loss descending", (shown) => assert.equal(shown[0], lossy.name)],
    ["level", "level descending", (shown) => assert.deepEqual(shown.slice(0, 2).sort(), [talker.name, lossy.name].sort())],
    ["link", "link descending", (shown) => assert.equal(shown[0], lossy.name)],
  ];
  for (const [column, expected, check] of cases) {
    await page.click(`th button[data-sort="${column}"]`);
    assert.equal(await sortedBy(), expected);
    check(await namesShown());
  }

  // The filter: every word in a name, role or channel.
  const filters = [
    ["Crew 007", (m) => m.name === "Crew 007"],
    ["fly", (m) => m.role === "Fly" || m.role === "Stage Manager"], // the stage managers are on Fly
    ["stage manager", (m) => m.role === "Stage Manager"],
    ["", () => true],
  ];
  for (const [query, keeps] of filters) {
    await page.fill("#filter", query);
    assert.deepEqual((await order()).map((id) => ids.get(id).name).sort(), crew.filter(keeps).map((m) => m.name).sort(), query);
  }

  // A phone: nothing sideways, and the bad link and the talkers in sight.
  await page.resize(390, 844);
  const phone = await monitor(() => {
    const seen = (el) => el && el.getBoundingClientRect().width > 0 && el.getBoundingClientRect().right <= innerWidth;
    const first = document.querySelector("#crew tr");
    return {
      overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth,
      bad: seen(first.querySelector(".health")) && first.querySelector(".health").textContent,
      loss: seen(first.querySelector(".loss")),
      talking: [...document.querySelectorAll('#crew tr[data-talking="true"] .dot')].filter(seen).length,
      name: seen(first.querySelector(".name")),
    };
  });
  assert.deepEqual(phone, { overflow: 0, bad: "Bad", loss: true, talking: 2, name: true });
  if (screenshots) await page.screenshot(join(screenshots, "monitor-500-phone.png"));
  assert.deepEqual(await page.errors(), []);
  crew.forEach((m) => m.leave());
  console.log("monitor at 500 crew: sorted, filtered, worst link first, phone layout fits");
} finally {
  stop?.();
  await browser?.close();
  server.kill("SIGTERM");
  await new Promise((done) => server.on("exit", done));
}
process.exit();
