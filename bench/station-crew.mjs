// The crew station's main-thread cost with a big crew: the real server, CREW - 1 UDP crew members
// (one socket each, each on an address of its own: 127.1.x.y), a few of them talking and one
// leaving and coming back every CHURN_MS, and the station in Debian's Chromium. Prints what the
// station's main thread spent per second over the window, by Chromium's own count (CDP
// Performance.getMetrics), and what the page itself counted in its crew list where it keeps
// such a count (window.parlavoxStation.crewCost).
//
//   tests/e2e/netns-run node bench/station-crew.mjs build/dev/bin/parlavox [CREW] [CHURN_MS] [all]
//
// Run it in a network namespace of its own (netns-run): it uses the fixed intercom port.
import { spawn } from "node:child_process";
import dgram from "node:dgram";
import { mkdtempSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";

const { chromium } = await import(new URL("../tests/browser/node_modules/playwright-core/index.mjs",
  import.meta.url).href);

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

const control = (message) => Buffer.concat([Buffer.from([1]), Buffer.from(JSON.stringify(message))]);

// One UDP crew member: joins, pings, and talks on its own department's channel when asked.
class Member {
  constructor(i) {
    this.i = i;
    this.name = `Crew ${String(i).padStart(3, "0")}`;
    this.role = roleOf(i);
    this.address = `127.1.${Math.floor(i / 250)}.${(i % 250) + 1}`;
    this.socket = dgram.createSocket("udp4");
    this.welcomed = false;
    this.socket.on("message", (m) => {
      if (m[0] === 1 && m.includes('"welcome"')) this.welcomed = true;
    });
  }

  async open() {
    await new Promise((done) => this.socket.bind(0, this.address, done));
    this.join();
  }

  send(bytes) {
    this.socket.send(bytes, PORT, "127.0.0.1");
  }

  join() {
    this.send(control({ t: "join", name: this.name, role: this.role }));
  }

  leave() {
    this.welcomed = false;
    this.send(control({ t: "bye" }));
  }

  talk(seq) {
    const mask = 1 << channels.indexOf(this.role);
    const datagram = Buffer.alloc(9 + 640);
    datagram.writeUInt8(2, 0);
    datagram.writeUInt32LE(mask >>> 0, 3);
    datagram.writeUInt16LE(seq & 0xffff, 7);
    for (let s = 0; s < 320; s++) datagram.writeInt16LE(Math.round(8000 * Math.sin(s / 5)), 9 + 2 * s);
    this.send(datagram);
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
  for (const member of crew) await member.open();
  timers.push(setInterval(() => crew.forEach((m) => m.send(control({ t: "ping" }))), 2000));
  for (let t = 0; crew.some((m) => !m.welcomed); t++) {
    if (t > 100) throw new Error(`${crew.filter((m) => !m.welcomed).length} crew not welcomed`);
    if (t % 10 === 9) crew.filter((m) => !m.welcomed).forEach((m) => m.join());
    await sleep(100);
  }

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
  let seq = 0;
  timers.push(setInterval(() => {
    seq++;
    talkers.forEach((m) => m.talk(seq));
  }, 20));
  // The churn: someone who is neither talking nor a stage manager leaves, and comes back.
  const coming = crew.filter((m) => !talkers.includes(m) && m.role !== "Stage Manager");
  let next = 0;
  if (CHURN_MS > 0) {
    timers.push(setInterval(() => {
      const member = coming[next++ % coming.length];
      member.leave();
      setTimeout(() => member.join(), CHURN_MS / 2);
    }, CHURN_MS));
  }

  await sleep(3000); // the window starts with the talk and the churn under way

  const cdp = await context.newCDPSession(page);
  await cdp.send("Performance.enable");
  const metrics = async () => Object.fromEntries((await cdp.send("Performance.getMetrics")).metrics
    .map(({ name, value }) => [name, value]));
  const pageCost = () => page.evaluate(() => window.parlavoxStation.crewCost?.() ?? null);
  const [before, costBefore] = [await metrics(), await pageCost()];
  const rosters = await page.evaluate(() => window.parlavoxStation.rosters?.() ?? null);
  if (process.env.PROFILE) await cdp.send("Profiler.enable").then(() => cdp.send("Profiler.start"));
  await sleep(WINDOW_MS);
  const [after, costAfter] = [await metrics(), await pageCost()];
  if (process.env.PROFILE) {
    const { profile } = await cdp.send("Profiler.stop");
    const self = new Map();
    const dt = new Map(profile.nodes.map((n) => [n.id, 0]));
    profile.samples.forEach((id, i) => dt.set(id, dt.get(id) + (profile.timeDeltas[i] ?? 0)));
    for (const n of profile.nodes) {
      const key = `${n.callFrame.functionName || "(anon)"} ${n.callFrame.url.split("/").pop()}:${n.callFrame.lineNumber}`;
      self.set(key, (self.get(key) ?? 0) + dt.get(n.id) / 1000);
    }
    [...self].sort((a, b) => b[1] - a[1]).slice(0, 25)
      .forEach(([k, ms]) => console.log(`  ${(ms / (WINDOW_MS / 1000)).toFixed(2).padStart(7)} ms/s  ${k}`));
  }
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
  for (const [key, value] of Object.entries(shown)) {
    console.log(`${key.padEnd(16)} ${typeof value === "number" && !Number.isInteger(value) ? value.toFixed(1) : value}`);
  }
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
