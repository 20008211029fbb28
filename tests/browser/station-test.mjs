// The crew station and the operator's monitor in a real browser (Chromium, Firefox ESR or
// WebKitGTK, see tools/devkit/browser/engines.mjs), its fake microphone playing a tone, against the real server and a
// real UDP crew member (parlavox-client) on loopback.
//
//   node station-test.mjs [--engine=chromium|firefox|webkit] PARLAVOX PARLAVOX_CLIENT WORKDIR [SCREENSHOT_DIR]
//
// The page talks: what parlavox-client records must be the microphone's tone (its sound, where the
// engine's fake microphone has no pitch of ours). The client talks: what the page received (its
// test hook, window.parlavoxStation) must be the client's tone, and the monitor must show both
// crew members, the client as talking; the show has a crew PIN, asked for first. Then the station is never silently off comms: the screen
// kept on, its talk key, its sound stopped and restored by a tap, a reload that rejoins, and the
// server frozen (SIGSTOP) and thawed. Chromium's screenshots are the README's; the other engines'
// are named after them (station-firefox.png), to look at.
import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import { mkdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { engines } from "../../tools/devkit/browser/engines.mjs";
import { channelLevels, delayFigures, LOAD_TEXT } from "./listening.mjs";

const args = process.argv.slice(2);
const engineName = args[0]?.startsWith("--engine=") ? args.shift().slice("--engine=".length) : "chromium";
const engine = engines[engineName];
if (!engine) throw new Error(`no engine ${engineName}: ${Object.keys(engines).join(", ")}`);
const [parlavox, client, workdir, screenshots] = args;
const shot = (name) => join(screenshots, engine.name === "chromium" ? `${name}.png` : `${name}-${engine.name}.png`);
const sleep = (ms) => new Promise((done) => setTimeout(done, ms));
const began = Date.now();

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
  return { broken, overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth };
}

async function until(what, check, ms = 15000) {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(50)) {
    if (await check()) return;
  }
  assert.fail(`timed out waiting for ${what}`);
}

// What the UDP crew must hear of the page's microphone: its pitch where we choose it.
const micHz = { file: 700, tone: 700, mock: null }[engine.mic];

const roles = JSON.parse(readFileSync(new URL("../config/builtin-roles.json", import.meta.url)));
writeFileSync(file("roles.json"), JSON.stringify({ ...roles, crewPin: "2468" }));
const server = start(parlavox, [], "parlavox");
let browser;
try {
  await until("the server", () => server.lines.some((l) => l.startsWith("✅ Listening on UDP port 50505")));
  browser = await engine.launch({ micFile: file("mic-700.wav"), micHz, scale: 2, home: file("home") });
  console.log(`engine: ${browser.version}, launched in ${((Date.now() - began) / 1000).toFixed(1)} s`);
  if (!engine.errorsFromStart) {
    console.log(`${engine.name}: page errors are caught from each page's load on, not while it loads`);
  }
  // ?test: the page installs its test hook.
  const page = await browser.open("https://127.0.0.1:50505/?test", { width: 400, height: 860 });
  const station = (call, arg) => page.evaluate(call, arg);

  // Its icons are served; nothing asks for a standalone app, in which iOS takes the microphone.
  const icons = await station(() => Promise.all(
    [...document.querySelectorAll("link[rel~=icon], link[rel=apple-touch-icon], link[rel=manifest]")]
      .map((link) => fetch(link.href).then((r) => `${link.rel} ${r.status} ${r.headers.get("content-type")}`))));
  assert.deepEqual(icons, ["icon 200 image/svg+xml", "apple-touch-icon 200 image/png"]);
  assert.equal(await page.count('meta[name$="web-app-capable"]'), 0);

  // The PIN first; the session it gets outlasts the reload below.
  const pinSays = (pin) => page.fill("#pin", pin).then(() => page.click("#pin-send"))
    .then(() => until("the PIN's answer", () => station(() => document.getElementById("pin-send").disabled === false)))
    .then(() => station(() => document.getElementById("pin-error").textContent));
  await until("the PIN form", () => station(() => !document.getElementById("pin-screen").hidden));
  assert.equal(await pinSays("1357"), "Wrong PIN.");
  assert.equal(await pinSays("2468"), "");
  await until("the join form", () => station(() => !document.getElementById("join-screen").hidden));
  await page.fill("#name", "Follow Spot");
  await until("the roles", () => page.count("#role option"));
  await page.select("#role", "Stage Manager");
  await page.click("#join");
  await until("the welcome", () => station(() => parlavoxStation.state().joined));
  assert.ok(server.lines.includes("🎧 Follow Spot joined as Stage Manager"));
  // The screen kept on while joined, where the engine has a wake lock at all.
  if (await station(() => "wakeLock" in navigator)) {
    await until("the screen's wake lock", () => station(() => parlavoxStation.wakeLock() === "held"), 3000);
  } else {
    console.log(`${engine.name}: no screen wake lock in this engine: not checked`);
  }

  // The page talks; a Lighting crew member records what it hears.
  const listener = start(client, ["127.0.0.1", "listen", "--role", "Lighting", "--name", "Lights",
                                  "--seconds", "5", "--out", file("heard-by-udp.wav")], "listen");
  await until("the listener", () => station(() => parlavoxStation.state().roster.length === 2));
  await page.mouseDown("#ptt");
  await sleep(2500);
  await page.mouseUp();
  assert.equal(await listener.ended, 0, listener.errors);
  const sent = await station(() => parlavoxStation.sent());
  assert.ok(sent >= 100, `the page sent ${sent} frames in 2.5 s of talking`);
  const heardByUdp = tone(wavSamples(file("heard-by-udp.wav")));
  console.log(`UDP crew heard the page: ${heardByUdp.seconds} s of ${heardByUdp.hz} Hz, RMS ${heardByUdp.rms.toFixed(3)}`);
  assert.ok(heardByUdp.seconds > 1.5, `heard ${heardByUdp.seconds} s of 2.5 s of talking`);
  if (micHz) {
    assert.ok(Math.abs(heardByUdp.hz - micHz) < 15, `heard ${heardByUdp.hz} Hz, played ${micHz} Hz`);
  } else {
    console.log(`${engine.name}: its mock microphone plays a sound of its own: the sound is checked, not its pitch`);
  }
  assert.ok(heardByUdp.rms > 0.02, `heard RMS ${heardByUdp.rms}`);

  // A UDP crew member talks; the page hears it.
  const talker = start(client, ["127.0.0.1", "talk", "--role", "Lighting", "--name", "Lights",
                                "--in", file("crew-440.wav")], "talk");
  await until("the talker on the roster", () =>
    station(() => parlavoxStation.state().roster.some((u) => u.name === "Lights" && u.talking)));
  if (screenshots) await page.screenshot(shot("station"), { fullPage: true });
  await sleep(1200);
  const heardByPage = tone(Float32Array.from(await station(() => parlavoxStation.output(1).samples)));

  // The operator's monitor, meanwhile: both crew members, the talker lit.
  const monitor = await browser.open("https://127.0.0.1:50505/monitor?test", { width: 1280, height: 720 });
  await until("the monitor's crew", () => monitor.count("#crew tr[data-peer-id]").then((n) => n === 2));
  await until("the talker on the monitor", () =>
    monitor.count('#crew tr[data-talking="true"]').then((n) => n === 1));
  assert.match(await monitor.text('#crew tr[data-talking="true"]'), /Lights/);
  if (screenshots) await monitor.screenshot(shot("monitor"));
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

  // Show mode. A UDP crew member calls on Tech: listed by name, Tech lit, a chime, the words for
  // screen readers; the page's talk, which includes Tech, answers it. Then nothing may overflow or
  // break mid-word on a 320 px phone.
  await page.click("#show-mode");
  const chimes = await station(() => parlavoxStation.chimes());
  const caller = start(client, ["127.0.0.1", "call", "Tech", "--role", "Lighting", "--name", "Lights"], "call");
  assert.equal(await caller.ended, 0, caller.errors);
  await until("the call", () => page.count("#calls:not([hidden]) li"), 3000);
  assert.deepEqual(await station(() => [...["#call-list", "#call-live"].map((s) => document.querySelector(s).textContent),
    [...document.querySelectorAll(".called")].map((e) => `${e.parentElement.id} ${e.dataset.bit}`)]),
  ["📞 Lights calls on TechDismiss", "Call from Lights on Tech", ["channels 1", "listen 1"]]);
  await until("the call's chime", () => station((n) => parlavoxStation.chimes() > n, chimes), 2000);
  await page.mouseDown("#ptt");
  await until("the page talking", () => station(() => parlavoxStation.state().talking));
  assert.equal(await page.count(".called, #calls:not([hidden])"), 0, "talking on Tech answers the call");
  // The window only: the border frames the screen, not the whole page.
  if (screenshots) await page.screenshot(shot("station-show"));
  await sleep(400); // held, not a tap: the lift ends the talk
  await page.mouseUp();
  // The page's own call key for Tech.
  await page.click('#channels [data-bit="1"] .call-key');
  await until("the page's call", () => server.lines.includes("📞 Follow Spot (Stage Manager) called Tech"), 2000);
  assert.equal(await page.text('#channels [data-bit="1"] .call-key'), "✓ Called Tech");
  await page.resize(320, 640);
  if (await station(() => innerWidth) > 320) {
    console.log(`${engine.name}: its window is no narrower than ${await station(() => innerWidth)} px: 320 px not checked`);
    await page.click("#show-mode");
  } else {
    for (const mode of ["show mode", "normal"]) {
      const { broken, overflow } = await station(wordsBroken);
      assert.deepEqual({ broken, overflow }, { broken: [], overflow: 0 }, `320 px, ${mode}`);
      if (mode === "show mode") await page.click("#show-mode");
    }
  }
  await page.resize(400, 860);

  const figures = await delayFigures(evaluate, 50505);
  const text = (f) => `median ${f.median.toFixed(1)} ms, p90 ${f.p90.toFixed(1)} ms `
    + `(${f.markers} of ${f.sent} markers), ${f.underruns} underruns`;
  console.log(`Delay, UDP talker to the page's output, calm: ${text(figures.calm)}`);
  console.log(`Delay under load (${LOAD_TEXT}): ${text(figures.loaded)}`);

  // The talk key: a tap latches; held over the latch it talks on, and the lift ends the talk.
  const talk = () => station(() => [parlavoxStation.state().talking, parlavoxStation.latched()]);
  const alarms = () => page.evaluate(() => [...document.querySelectorAll('[role="alert"]')]
    .filter((e) => e.offsetParent !== null).map((e) => e.textContent));
  const shown = (selector) => page.evaluate((s) => document.querySelector(s)?.offsetParent != null, selector);
  await page.click("#ptt");
  assert.deepEqual(await talk(), [true, true], "a tap latches");
  await page.mouseDown("#ptt");
  const sentBefore = await station(() => parlavoxStation.sent());
  await sleep(600);
  assert.deepEqual(await talk(), [true, true], "held over the latch, it talks on");
  assert.ok(await station(() => parlavoxStation.sent()) > sentBefore + 10, "and sends while held");
  await page.mouseUp();
  assert.deepEqual(await talk(), [false, false], "the lift ends the talk");

  // The sound stopped by the system, while latched: the alarm, talking ended; a tap restores it.
  await page.click("#ptt");
  let since = Date.now();
  await station(() => parlavoxStation.suspendAudio());
  await until("the audio alarm", async () => (await alarms()).includes("Audio stopped — tap to restore"), 1000);
  console.log(`Audio stopped: alarm after ${Date.now() - since} ms`);
  assert.deepEqual(await talk(), [false, false], "a stopped sound ends the talk, latch and all");
  assert.notEqual(await page.text("#conn"), "Connected");
  assert.equal(await page.evaluate(() => document.querySelector("#ptt").getAttribute("aria-pressed")), "false");
  await page.click("#alarm-audio");
  await until("the sound back", () => station(() => parlavoxStation.audio() === "running"), 3000);
  assert.deepEqual(await alarms(), []);
  await page.mouseDown("#ptt");
  const sentAgain = await station(() => parlavoxStation.sent());
  await sleep(600);
  await page.mouseUp();
  assert.ok(await station(() => parlavoxStation.sent()) > sentAgain + 10, "the sound flows again");

  // Show control announces: its words over the crew list, at the time it began.
  execFileSync("oscsend", ["127.0.0.1", "47000", "/parlavox/say", "s", "Places, please"]);
  await until("the announcement's words", async () => /^\d\d:\d\d Places, please$/.test(await page.text("#announced")));

  // A reload rejoins by itself.
  await page.reload();
  await until("the rejoin after a reload", () => station(() => parlavoxStation.state().joined
    && parlavoxStation.state().name === "Follow Spot" && parlavoxStation.state().role === "Stage Manager"));

  // The server frozen: a dead link, noticed within about 3 s; a latched talk ended, an alert
  // sounded, the crew list stale; thawed, all back as it was.
  await until("a settled link", () => station(() => parlavoxStation.audio() === "running"
    && parlavoxStation.alarms().length === 0));
  await page.click("#ptt");
  assert.deepEqual(await talk(), [true, true]);
  const alertsBefore = await station(() => parlavoxStation.alerts());
  server.kill("SIGSTOP");
  since = Date.now();
  await until("the dead-link alarm", async () => (await alarms()).includes("Connection lost — reconnecting…"), 3500);
  console.log(`Server frozen: alarm after ${Date.now() - since} ms`);
  assert.deepEqual(await talk(), [false, false], "a dead link ends a latched talk");
  assert.ok(await shown("#crew-stale"), "the crew list is marked stale");
  await until("the alert sound", () => station((n) => parlavoxStation.alerts() > n, alertsBefore), 2000);
  server.kill("SIGCONT");
  since = Date.now();
  await until("the rejoin after the thaw", () => station(() => parlavoxStation.state().joined
    && parlavoxStation.alarms().length === 0));
  console.log(`Server thawed: rejoined after ${Date.now() - since} ms`);
  assert.ok(!(await shown("#crew-stale")));

  const left = () => server.lines.filter((l) => l === "👋 Follow Spot (Stage Manager) left").length;
  const leftBefore = left();
  await page.close();
  await until("the departure", () => left() > leftBefore);
  assert.deepEqual([...await page.errors(), ...await monitor.errors()], []);
  assert.equal(server.errors, "");
  console.log(`browser station (${engine.name}): OK in ${((Date.now() - began) / 1000).toFixed(1)} s`);
} finally {
  await browser?.close();
  server.kill("SIGTERM");
  await server.ended;
}
