// The operator's monitor with a full crew: the real server, CREW UDP crew members (one socket
// each, on an address of its own: 127.1.x.y), two of them talking, one of them losing a frame in
// five, one leaving and coming back every CHURN_MS, and the monitor in Debian's Chromium at
// 1280×720. Prints, over a 10 s window:
//   - the monitor's main-thread time per second, by Chromium's own count (CDP
//     Performance.getMetrics: TaskDuration and its script, layout and style parts);
//   - the server's CPU per second with nobody watching and with the monitor open: the difference
//     is what building and sending its snapshots costs the event loop.
//
//   PARLAVOX_WEB_ROOT=build/dev/src/web/root \
//     tests/e2e/netns-run node bench/monitor-crew.mjs build/dev/bin/parlavox [CREW] [CHURN_MS]
//
// Run it in a network namespace of its own (netns-run): it uses the fixed intercom port.
import { mkdtempSync, readFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { counters, profiler, printFigures } from "./main-thread.mjs";

const devkit = new URL("../tools/devkit/browser/", import.meta.url);
const { chromium } = await import(new URL("node_modules/playwright-core/index.mjs", devkit).href);
const { joinCrew, startServer, talk } = await import(new URL("big-crew.mjs", devkit).href);

const [program, crewArg = "500", churnArg = "1000"] = process.argv.slice(2);
const CREW = Number(crewArg);
const CHURN_MS = Number(churnArg); // 0: nobody comes or goes
const WINDOW_MS = 10000;
const PORT = 50505;
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

const server = await startServer(program, mkdtempSync(join(tmpdir(), "parlavox-monitor-")));

// The server's user and system CPU so far, in ms (fields 14 and 15 of /proc/PID/stat, in ticks
// of 10 ms on Linux).
const serverCpuMs = () => {
  const fields = readFileSync(`/proc/${server.pid}/stat`, "utf8").split(") ")[1].split(" ");
  return (Number(fields[11]) + Number(fields[12])) * 10;
};

let browser;
const stops = [];
try {
  const crew = await joinCrew(CREW, PORT);
  const [talker, lossy] = [crew[1], crew[2]];
  stops.push(talk(talker, lossy));
  const coming = crew.filter((m) => m !== talker && m !== lossy);
  let next = 0;
  if (CHURN_MS > 0) {
    const churn = setInterval(() => {
      const m = coming[next++ % coming.length];
      m.leave();
      setTimeout(() => m.join(PORT).catch(() => {}), CHURN_MS / 2);
    }, CHURN_MS);
    stops.push(() => clearInterval(churn));
  }

  await sleep(3000);
  const cpuAlone = serverCpuMs();
  await sleep(WINDOW_MS);
  const serverAlone = (serverCpuMs() - cpuAlone) / (WINDOW_MS / 1000);

  browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1280, height: 720 } });
  const page = await context.newPage();
  const cdp = await context.newCDPSession(page);
  // The snapshots' size, as the page receives them.
  const feed = { frames: 0, bytes: 0 };
  await cdp.send("Network.enable");
  cdp.on("Network.webSocketFrameReceived", ({ response }) => {
    feed.frames++;
    feed.bytes += response.payloadData.length;
  });
  await page.goto(`https://127.0.0.1:${PORT}/monitor?test`);
  await page.waitForFunction((n) => document.querySelectorAll("#crew tr[data-peer-id]").length >= n - 1, CREW,
    { timeout: 30000 });
  await sleep(3000);

  const metrics = await counters(cdp);
  const before = await metrics();
  const feedBefore = { ...feed };
  const cpuWatched = serverCpuMs();
  const stopProfile = await profiler(cdp, WINDOW_MS, 20);
  await sleep(WINDOW_MS);
  const after = await metrics();
  const serverWatched = (serverCpuMs() - cpuWatched) / (WINDOW_MS / 1000);
  await stopProfile();
  const seconds = after.Timestamp - before.Timestamp;
  const perSecond = (name) => ((after[name] - before[name]) * 1000) / seconds;
  const shown = {
    crew: CREW, churnMs: CHURN_MS, seconds: Number(seconds.toFixed(2)),
    rowsInDom: await page.locator("#crew tr[data-peer-id]").count(),
    taskMsPerS: perSecond("TaskDuration"), scriptMsPerS: perSecond("ScriptDuration"),
    layoutMsPerS: perSecond("LayoutDuration"), styleMsPerS: perSecond("RecalcStyleDuration"),
    snapshotsPerS: (feed.frames - feedBefore.frames) / seconds,
    snapshotKiB: (feed.bytes - feedBefore.bytes) / 1024 / Math.max(1, feed.frames - feedBefore.frames),
    serverCpuMsPerS: serverAlone, serverCpuWatchedMsPerS: serverWatched,
  };
  printFigures(shown, 22);
  crew.forEach((m) => m.leave());
} catch (error) {
  console.error(error);
  process.exitCode = 1;
} finally {
  stops.forEach((stop) => stop());
  await browser?.close();
  await server.stop();
  process.exit();
}
