// The crew station and the operator's monitor in a real browser: Debian's Chromium, its fake
// microphone playing a tone, against the real server and a real UDP crew member (parlavox-client)
// on loopback.
//
//   node station-test.mjs PARLAVOX PARLAVOX_CLIENT WORKDIR [SCREENSHOT_DIR]
//
// The page talks: what parlavox-client records must be the microphone's tone. The client talks:
// what the page received (its test hook, window.parlavoxStation) must be the client's tone, and
// the monitor must show both crew members, the client as talking.
import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import { mkdirSync, readFileSync, rmSync } from "node:fs";
import { join } from "node:path";
import { chromium } from "playwright-core";
import { channelLevels, delayFigures, LOAD_TEXT } from "./listening.mjs";

const [parlavox, client, workdir, screenshots] = process.argv.slice(2);
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

rmSync(workdir, { recursive: true, force: true });
mkdirSync(workdir, { recursive: true });
const file = (name) => join(workdir, name);
const sox = (...args) => execFileSync("sox", args);
sox("-n", "-r", "48000", "-c", "1", "-b", "16", file("mic-700.wav"), "synth", "30", "sine", "700", "gain", "-6");
sox("-n", "-r", "16000", "-c", "1", "-b", "16", file("crew-440.wav"), "synth", "6", "sine", "440", "gain", "-6");

// Mono 16-bit PCM samples of a WAV file, as floats.
function wavSamples(path) {
  const bytes = readFileSync(path);
  let at = 12;
  while (bytes.toString("ascii", at, at + 4) !== "data") at += 8 + bytes.readUInt32LE(at + 4);
  const data = bytes.subarray(at + 8, at + 8 + bytes.readUInt32LE(at + 4));
  return Float32Array.from({ length: data.length / 2 }, (_, i) => data.readInt16LE(2 * i) / 32768);
}

// The tone in `samples` at 16 kHz, over its sounding 20 ms frames only (the browser's noise
// suppression fades a steady tone, and silence surrounds it): how long it sounds, its RMS there,
// and its frequency from the mean time between zero crossings (interpolated), leaving out the
// odd interval that spans a dropout.
function tone(samples) {
  const frame = 320;
  let frames = 0, sum = 0;
  const crossings = [];
  for (let start = 0; start + frame <= samples.length; start += frame) {
    const block = samples.subarray(start, start + frame);
    const energy = block.reduce((total, x) => total + x * x, 0);
    if (Math.sqrt(energy / frame) < 0.005) continue;
    frames++;
    sum += energy;
    for (let i = 1; i < frame; i++) {
      const [a, b] = [block[i - 1], block[i]];
      if ((a < 0) !== (b < 0)) crossings.push(start + i - 1 + a / (a - b));
    }
  }
  const gaps = crossings.slice(1).map((at, i) => at - crossings[i]);
  const median = [...gaps].sort((x, y) => x - y)[gaps.length >> 1];
  const usual = gaps.filter((gap) => gap > median / 2 && gap < median * 1.5);
  const halfPeriod = usual.reduce((total, gap) => total + gap, 0) / usual.length;
  return {
    seconds: (frames * frame) / 16000,
    rms: Math.sqrt(sum / (frames * frame || 1)),
    hz: Math.round(16000 / (2 * halfPeriod)),
  };
}

function start(program, args, name) {
  const child = spawn(program, args, { cwd: workdir, stdio: ["ignore", "pipe", "pipe"] });
  child.lines = [];
  child.errors = "";
  child.stdout.setEncoding("utf8").on("data", (text) => child.lines.push(...text.split("\n")));
  child.stderr.setEncoding("utf8").on("data", (text) => (child.errors += text));
  child.ended = new Promise((done) => child.on("exit", (code) => done(code)));
  child.name = name;
  return child;
}

// In the page: the words of visible text that wrap across lines, and by how much the page is
// wider than the window.
function wordsBroken() {
  const broken = [];
  const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  for (let node = walk.nextNode(); node; node = walk.nextNode()) {
    for (const { 0: word, index } of node.textContent.matchAll(/\S+/g)) {
      const range = document.createRange();
      range.setStart(node, index);
      range.setEnd(node, index + word.length);
      const tops = [...range.getClientRects()].filter((r) => r.width).map((r) => Math.round(r.top));
      if (new Set(tops).size > 1) broken.push(word);
    }
  }
  return { broken, overflow: document.documentElement.scrollWidth - window.innerWidth };
}

async function until(what, check, ms = 15000) {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(50)) {
    if (await check()) return;
  }
  assert.fail(`timed out waiting for ${what}`);
}

const server = start(parlavox, [], "parlavox");
let browser;
try {
  await until("the server", () => server.lines.some((l) => l.startsWith("✅ Listening on UDP port 50505")));
  browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: [
      "--no-sandbox",
      "--use-fake-ui-for-media-stream",
      "--use-fake-device-for-media-stream",
      `--use-file-for-fake-audio-capture=${file("mic-700.wav")}`,
      "--autoplay-policy=no-user-gesture-required",
    ],
  });
  const context = await browser.newContext({
    ignoreHTTPSErrors: true, // the server's certificate is its own, as a crew's phone first sees it
    viewport: { width: 400, height: 860 },
    deviceScaleFactor: 2,
  });
  const page = await context.newPage();
  const pageErrors = [];
  page.on("pageerror", (error) => pageErrors.push(String(error)));
  await page.goto("https://127.0.0.1:50505/?test"); // ?test: the page installs its test hook
  const station = (call) => page.evaluate(call);

  // Its icons are served; nothing asks for a standalone app, in which iOS takes the microphone.
  const icons = await station(() => Promise.all(
    [...document.querySelectorAll("link[rel~=icon], link[rel=apple-touch-icon], link[rel=manifest]")]
      .map((link) => fetch(link.href).then((r) => `${link.rel} ${r.status} ${r.headers.get("content-type")}`))));
  assert.deepEqual(icons, ["icon 200 image/svg+xml", "apple-touch-icon 200 image/png"]);
  assert.equal(await page.locator('meta[name$="web-app-capable"]').count(), 0);

  await page.fill("#name", "Follow Spot");
  await until("the roles", () => page.locator("#role option").count());
  await page.selectOption("#role", "Stage Manager");
  await page.click("#join");
  await until("the welcome", () => station(() => parlavoxStation.state().joined));
  assert.ok(server.lines.includes("🎧 Follow Spot joined as Stage Manager"));

  // The page talks; a Lighting crew member records what it hears.
  const listener = start(client, ["127.0.0.1", "listen", "--role", "Lighting", "--name", "Lights",
                                  "--seconds", "5", "--out", file("heard-by-udp.wav")], "listen");
  await until("the listener", () => station(() => parlavoxStation.state().roster.length === 2));
  const ptt = await page.locator("#ptt").boundingBox();
  await page.mouse.move(ptt.x + ptt.width / 2, ptt.y + ptt.height / 2);
  await page.mouse.down();
  await sleep(2500);
  await page.mouse.up();
  assert.equal(await listener.ended, 0, listener.errors);
  const sent = await station(() => parlavoxStation.sent());
  assert.ok(sent >= 100, `the page sent ${sent} frames in 2.5 s of talking`);
  const heardByUdp = tone(wavSamples(file("heard-by-udp.wav")));
  console.log(`UDP crew heard the page: ${heardByUdp.seconds} s of ${heardByUdp.hz} Hz, RMS ${heardByUdp.rms.toFixed(3)}`);
  assert.ok(heardByUdp.seconds > 1.5, `heard ${heardByUdp.seconds} s of 2.5 s of talking`);
  assert.ok(Math.abs(heardByUdp.hz - 700) < 15, `heard ${heardByUdp.hz} Hz, played 700 Hz`);
  assert.ok(heardByUdp.rms > 0.02, `heard RMS ${heardByUdp.rms}`);

  // A UDP crew member talks; the page hears it.
  const talker = start(client, ["127.0.0.1", "talk", "--role", "Lighting", "--name", "Lights",
                                "--in", file("crew-440.wav")], "talk");
  await until("the talker on the roster", () =>
    station(() => parlavoxStation.state().roster.some((u) => u.name === "Lights" && u.talking)));
  if (screenshots) await page.screenshot({ path: join(screenshots, "station.png"), fullPage: true });
  await sleep(1200);
  const heardByPage = tone(Float32Array.from(await station(() => parlavoxStation.output(1).samples)));

  // The operator's monitor, meanwhile: both crew members, the talker lit.
  const monitor = await context.newPage();
  monitor.on("pageerror", (error) => pageErrors.push(String(error)));
  await monitor.setViewportSize({ width: 1280, height: 720 });
  await monitor.goto("https://127.0.0.1:50505/monitor?test");
  await until("the monitor's crew", () => monitor.locator("#crew tr[data-peer-id]").count().then((n) => n === 2));
  await until("the talker on the monitor", () =>
    monitor.locator('#crew tr[data-talking="true"]').count().then((n) => n === 1));
  const talking = await monitor.locator('#crew tr[data-talking="true"]').textContent();
  assert.match(talking, /Lights/);
  if (screenshots) await monitor.screenshot({ path: join(screenshots, "monitor.png") });
  assert.equal(await talker.ended, 0, talker.errors);
  console.log(`The page played UDP crew: ${heardByPage.seconds} s of ${heardByPage.hz} Hz, RMS ${heardByPage.rms.toFixed(3)}`);
  assert.ok(heardByPage.seconds > 0.9, `a second of the page's output held ${heardByPage.seconds} s of tone`);
  assert.ok(Math.abs(heardByPage.hz - 440) < 5, `played ${heardByPage.hz} Hz, sent 440 Hz`);
  assert.ok(heardByPage.rms > 0.2, `played RMS ${heardByPage.rms}`);

  const evaluate = (fn, arg) => page.evaluate(fn, arg);
  for (const { levels, expected } of await channelLevels(evaluate, 50505)) {
    const text = `heard ${levels.map((l) => l.toFixed(2))} of the two tones, expected ${expected}`;
    console.log(`Listening per channel: ${text}`);
    levels.forEach((level, i) => assert.ok(Math.abs(level - expected[i]) < 0.1, text));
  }

  // Show mode, the page talking; then nothing may overflow or break mid-word on a 320 px phone.
  await page.click("#show-mode");
  const button = await page.locator("#ptt").boundingBox();
  await page.mouse.move(button.x + button.width / 2, button.y + button.height / 2);
  await page.mouse.down();
  await until("the page talking", () => station(() => parlavoxStation.state().talking));
  // The window only: the border frames the screen, not the whole page.
  if (screenshots) await page.screenshot({ path: join(screenshots, "station-show.png") });
  await page.mouse.up();
  await page.setViewportSize({ width: 320, height: 640 });
  for (const mode of ["show mode", "normal"]) {
    const { broken, overflow } = await station(wordsBroken);
    assert.deepEqual({ broken, overflow }, { broken: [], overflow: 0 }, `320 px, ${mode}`);
    if (mode === "show mode") await page.click("#show-mode");
  }

  const figures = await delayFigures(evaluate, 50505);
  const text = (f) => `median ${f.median.toFixed(1)} ms, p90 ${f.p90.toFixed(1)} ms `
    + `(${f.markers} of ${f.sent} markers), ${f.underruns} underruns`;
  console.log(`Delay, UDP talker to the page's output, calm: ${text(figures.calm)}`);
  console.log(`Delay under load (${LOAD_TEXT}): ${text(figures.loaded)}`);

  await page.close();
  await until("the departure", () => server.lines.includes("👋 Follow Spot (Stage Manager) left"));
  assert.deepEqual(pageErrors, []);
  assert.equal(server.errors, "");
  console.log("browser station: OK");
} finally {
  await browser?.close();
  server.kill("SIGTERM");
  await server.ended;
}
