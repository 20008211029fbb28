// The crew station's main-thread cost with a big crew: the real server, CREW - 1 UDP crew members
// (one socket each, each on an address of its own: 127.1.x.y), a few of them talking and one
// leaving and coming back every CHURN_MS, and the station in Debian's Chromium. Prints what the
// station's main thread spent per second over the window, by Chromium's own count (CDP
// Performance.getMetrics), and what the page itself counted in its crew list where it keeps
// such a count (window.parlavoxStation.crewCost).
//
//   PARLAVOX_WEB_ROOT=build/dev/src/web/root \
//     tests/e2e/netns-run node bench/station-crew.mjs build/dev/bin/parlavox [CREW] [CHURN_MS] [all]
//
// Run it in a network namespace of its own (netns-run): it uses the fixed intercom port.
import { spawn } from "node:child_process";
import { mkdtempSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import { counters, profiler, printFigures } from "./main-thread.mjs";

// The devkit's drivers: Chromium's own performance counters are the point here, so playwright
// directly rather than the engines' common interface. PARLAVOX_WEB_ROOT names the staged pages,
// whose codec the crew speaks (build/<preset>/src/web/root).
const devkit = new URL("../tools/devkit/browser/", import.meta.url);
const { chromium } = await import(new URL("node_modules/playwright-core/index.mjs", devkit).href);
const { sine, UdpCrew } = await import(new URL("udp-crew.mjs", devkit).href);
const tone = sine(400, 0.25);

const [program, crewArg = "500", churnArg = "1000", showAll] = process.argv.slice(2);
const parlavox = resolve(program);
const CREW = Number(crewArg);
const CHURN_MS = Number(churnArg); // 0: nobody comes or goes
const SHOW_ALL = showAll === "all"; // the folded part of the crew list unfolded
const WINDOW_MS = 10000;
const PORT = 50505;
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

// A show the size of a big production: a stage manager on every channel, departments that talk
// among themselves and hear Main. The station is on Sound: it shares channels with Sound and
// with the stage managers, not with the other departments.
const departments = ["Sound", "Lighting", "Stage", "Fly", "Wardrobe", "Props", "Video", "Orchestra", "FOH"];
const channels = ["Main", ...departments];
const show = {
  show: "Big Show",
  channels,
  roles: [
    { name: "Stage Manager", talk: channels, listen: channels },
    ...departments.map((d) => ({ name: d, talk: [d], listen: ["Main", d] })),
  ],
};
const roleOf = (i) => (i % 50 === 0 ? "Stage Manager" : departments[i % departments.length]);

const dir = mkdtempSync(join(tmpdir(), "parlavox-crew-"));
writeFileSync(join(dir, "roles.json"), JSON.stringify(show));
const server = spawn(parlavox, [join(dir, "roles.json")], { cwd: dir, stdio: ["ignore", "pipe", "inherit"] });
let serverOut = "";
server.stdout.setEncoding("utf8").on("data", (text) => (serverOut += text));

// One UDP crew member, from an address of its own (127.1.x.y): it joins, keeps alive, and talks
// on its own department's channel when asked.
class Member {
  constructor(i) {
    this.name = `Crew ${String(i).padStart(3, "0")}`;
    this.role = roleOf(i);
    this.from = `127.1.${Math.floor(i / 250)}.${(i % 250) + 1}`;
    this.mask = 1 << channels.indexOf(this.role);
    this.crew = null;
  }

  async join() {
    this.crew = await UdpCrew.join(PORT, this.role, this.name, this.from);
  }

  leave() {
    this.crew?.leave();
    this.crew = null;
  }

  talk(k) {
    this.crew?.sendFrame(this.mask, tone(k));
  }
}

let browser;
const timers = [];
try {
  for (let t = 0; !serverOut.includes("Listening on UDP port"); t++) {
    if (t > 200) throw new Error("the server did not start");
    await sleep(50);
  }
  const crew = Array.from({ length: CREW - 1 }, (_, i) => new Member(i));
  await Promise.all(crew.map((member) => member.join()));

  browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: ["--no-sandbox", "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream",
      "--autoplay-policy=no-user-gesture-required"],
  });
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 400, height: 860 } });
  const page = await context.newPage();
  await page.goto(`https://127.0.0.1:${PORT}/?test`);
  await page.fill("#name", "Station");
  await page.waitForFunction(() => [...document.querySelectorAll("#role option")].some((o) => o.value === "Sound"));
  await page.selectOption("#role", "Sound");
  await page.click("#join");
  await page.waitForFunction((n) => window.parlavoxStation.state().roster.length >= n, CREW,
    { timeout: 30000 });
  if (SHOW_ALL && await page.locator("#crew-more").count()) await page.click("#crew-more");

  // Two talkers the station hears (Sound), two it does not (Lighting, Stage).
  const first = (role, n) => crew.filter((m) => m.role === role).slice(0, n);
  const talkers = [...first("Sound", 2), ...first("Lighting", 1), ...first("Stage", 1)];
  let frame = 0;
  timers.push(setInterval(() => {
    frame++;
    talkers.forEach((m) => m.talk(frame));
  }, 20));
  // The churn: someone who is neither talking nor a stage manager leaves, and comes back.
  const coming = crew.filter((m) => !talkers.includes(m) && m.role !== "Stage Manager");
  let next = 0;
  if (CHURN_MS > 0) {
    timers.push(setInterval(() => {
      const member = coming[next++ % coming.length];
      member.leave();
      setTimeout(() => member.join().catch(() => {}), CHURN_MS / 2);
    }, CHURN_MS));
  }

  await sleep(3000); // the window starts with the talk and the churn under way

  const cdp = await context.newCDPSession(page);
  const metrics = await counters(cdp);
  const pageCost = () => page.evaluate(() => window.parlavoxStation.crewCost?.() ?? null);
  const [before, costBefore] = [await metrics(), await pageCost()];
  const rosters = await page.evaluate(() => window.parlavoxStation.rosters?.() ?? null);
  const stopProfile = await profiler(cdp, WINDOW_MS);
  await sleep(WINDOW_MS);
  const [after, costAfter] = [await metrics(), await pageCost()];
  await stopProfile();
  const rostersAfter = await page.evaluate(() => window.parlavoxStation.rosters?.() ?? null);
  const seconds = after.Timestamp - before.Timestamp;
  const perSecond = (name) => ((after[name] - before[name]) * 1000) / seconds;
  const rows = await page.locator("#roster li").count();
  const shown = {
    crew: CREW, churnMs: CHURN_MS, showAll: SHOW_ALL, seconds: Number(seconds.toFixed(2)), rowsInDom: rows,
    taskMsPerS: perSecond("TaskDuration"), scriptMsPerS: perSecond("ScriptDuration"),
    layoutMsPerS: perSecond("LayoutDuration"), styleMsPerS: perSecond("RecalcStyleDuration"),
    crewListMsPerS: costBefore === null ? null : ((costAfter - costBefore) * 1000) / (seconds * 1000),
    rostersPerS: rosters === null ? null : (rostersAfter - rosters) / seconds,
  };
  printFigures(shown, 16);
  crew.forEach((m) => m.leave());
} catch (error) {
  console.error(error);
  process.exitCode = 1;
} finally {
  timers.forEach(clearInterval);
  await browser?.close();
  server.kill("SIGTERM");
  await new Promise((done) => server.on("exit", done));
  process.exit();
}
