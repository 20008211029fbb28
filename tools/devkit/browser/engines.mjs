// The browser engines the station scenario runs in, behind one small interface, each from Debian's
// packages and driven by an npm client that downloads no browser:
//
//   chromium  /usr/bin/chromium, playwright-core (DevTools protocol)
//   firefox   /usr/bin/firefox-esr, puppeteer-core (WebDriver BiDi)
//   webkit    WebKitGTK's MiniBrowser under WebKitWebDriver and a private Xvfb, selenium-webdriver
//             (classic WebDriver): the nearest Debian has to Safari on iOS
//
// const browser = await engines.firefox.launch({ micFile, micHz, scale, home });
//   (and Chromium's { credentials }: the username and password a page's server asks for)
//   browser.version; browser.close()
//   const page = await browser.open(url, { width, height });
//   page.evaluate(fn, arg)            fn runs in the page; a returned promise is awaited
//   page.count(selector), page.text(selector)
//   page.click(selector), page.fill(selector, text), page.select(selector, value)
//   page.press(key), page.keyDown(key), page.keyUp(key)   "Space", "Enter", "ArrowUp", or a character
//   page.mouseDown(selector), page.mouseUp()              the primary button, at the element's centre
//   page.reload(), page.resize(width, height), page.screenshot(path, { fullPage }), page.close()
//   page.errors()                     resolves to what the page threw, uncaught, so far
//
// What an engine cannot do is declared beside it, for the scenario to test the rest and say so.
import { spawn } from "node:child_process";
import { mkdirSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";

const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

// Firefox and WebKit keep caches and settings under the user's home: given `home`, in the run's
// own directory instead, so that nothing carries over from one run to the next.
function homeEnv(home) {
  if (!home) return process.env;
  mkdirSync(home, { recursive: true });
  return { ...process.env, HOME: home, XDG_CACHE_HOME: `${home}/.cache`, XDG_CONFIG_HOME: `${home}/.config`,
           XDG_DATA_HOME: `${home}/.local/share` };
}

// count() and text(), the same in every engine.
function withQueries(page) {
  page.count = (selector) => page.evaluate((s) => document.querySelectorAll(s).length, selector);
  page.text = (selector) => page.evaluate((s) => document.querySelector(s)?.textContent ?? null, selector);
  return page;
}

// Playwright's and puppeteer's pages are alike: one wrapper, told how they differ.
function pageOf(page, { key = (name) => name, select, resize }) {
  const errors = [];
  page.on("pageerror", (error) => errors.push(String(error)));
  return withQueries({
    evaluate: (fn, arg) => page.evaluate(fn, arg),
    click: (selector) => page.click(selector),
    fill: (selector, text) => page.locator(selector).fill(text),
    select: async (selector, value) => void await select(selector, value),
    press: (name) => page.keyboard.press(key(name)),
    keyDown: (name) => page.keyboard.down(key(name)),
    keyUp: (name) => page.keyboard.up(key(name)),
    async mouseDown(selector) {
      const box = await (await page.$(selector)).boundingBox();
      await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
      await page.mouse.down();
    },
    mouseUp: () => page.mouse.up(),
    reload: async () => void await page.reload(),
    resize: async (width, height) => void await resize(width, height),
    screenshot: (path, { fullPage = false } = {}) => page.screenshot({ path, fullPage }),
    errors: () => [...errors],
    close: () => page.close(),
  });
}

// --- Chromium: a fake microphone playing a WAV file we give it ---

async function launchChromium({ micFile, scale = 1, credentials }) {
  const { chromium } = await import("playwright-core");
  const browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: [
      "--no-sandbox",
      "--use-fake-ui-for-media-stream",
      "--use-fake-device-for-media-stream",
      ...(micFile ? [`--use-file-for-fake-audio-capture=${micFile}`] : []),
      "--autoplay-policy=no-user-gesture-required",
    ],
  });
  // The server's certificate is its own, as a crew's phone first sees it; `credentials`
  // ({ username, password }) answer the server's asking for a password.
  const context = await browser.newContext({ ignoreHTTPSErrors: true, deviceScaleFactor: scale,
    ...(credentials ? { httpCredentials: credentials } : {}) });
  return {
    version: `chromium/${browser.version()}`,
    async open(url, { width, height }) {
      const page = await context.newPage();
      const wrapped = pageOf(page, {
        select: (selector, value) => page.selectOption(selector, value),
        resize: (w, h) => page.setViewportSize({ width: w, height: h }),
      });
      await page.setViewportSize({ width, height });
      await page.goto(url);
      return wrapped;
    },
    close: () => browser.close(),
  };
}

// --- Firefox ESR: its fake microphone is a sine of amplitude 0.1 at a frequency a pref sets ---

// puppeteer over BiDi knows the space bar only as " ", and sends its "Enter" as the keypad's.
const bidiKey = (name) => ({ Space: " ", Enter: "\uE006" })[name] ?? name;

async function launchFirefox({ micHz, scale = 1, home }) {
  const { default: puppeteer } = await import("puppeteer-core");
  const browser = await puppeteer.launch({
    browser: "firefox",
    executablePath: "/usr/bin/firefox-esr",
    headless: true,
    env: homeEnv(home),
    acceptInsecureCerts: true,
    extraPrefsFirefox: {
      "media.navigator.streams.fake": true,
      "media.navigator.permission.disabled": true,
      // No sound device here: without a mock one every AudioContext stays suspended.
      "media.cubeb.force_mock_context": true,
      "media.autoplay.default": 0,
      "media.autoplay.block-webaudio": false,
      ...(micHz ? { "media.navigator.audio.fake_frequency": micHz } : {}),
    },
  });
  const version = await browser.version();
  let opened = 0;
  return {
    version,
    async open(url, { width, height }) {
      // Later pages in windows of their own: the first stays visible, as a background tab would not.
      const page = await browser.newPage(opened++ ? { type: "window" } : undefined);
      const select = (selector, value) => page.select(selector, value);
      const resize = (w, h) => page.setViewport({ width: w, height: h, deviceScaleFactor: scale });
      const wrapped = pageOf(page, { key: bidiKey, select, resize });
      await page.setViewport({ width, height, deviceScaleFactor: scale });
      await page.goto(url);
      return wrapped;
    },
    close: () => browser.close(),
  };
}

// --- WebKitGTK: MiniBrowser's mock microphone, its own hum and bursts ---

const MULTIARCH = { x64: "x86_64-linux-gnu", arm64: "aarch64-linux-gnu" }[process.arch];
const MINIBROWSER = `/usr/lib/${MULTIARCH}/webkit2gtk-4.1/MiniBrowser`;

// A helper program, the end of its stderr kept for when it fails.
function helper(program, args, options = {}) {
  const proc = spawn(program, args, { stdio: ["ignore", "ignore", "pipe"], ...options });
  proc.log = "";
  proc.stderr.setEncoding("utf8").on("data", (text) => (proc.log = (proc.log + text).slice(-4000)));
  proc.ended = new Promise((done) => proc.on("exit", done));
  proc.stop = () => {
    if (proc.exitCode === null && proc.signalCode === null) proc.kill();
    return proc.ended;
  };
  return proc;
}

const freePort = () => new Promise((done) => {
  const server = createServer().listen(0, "127.0.0.1", () => {
    const { port } = server.address();
    server.close(() => done(port));
  });
});

// WebKitWebDriver may answer a navigation before the page's module scripts have run (seen:
// readyState "interactive"), and they would undo what a test does meanwhile: wait for the load.
async function loaded(driver) {
  await driver.wait(() => driver.executeScript("return document.readyState === 'complete';"), 15000);
}

// Classic WebDriver has no event for a page's errors, nor a way in before the page's scripts
// run: the page catches them itself from its load on, and what it throws while loading is missed.
function catchErrors() {
  const errors = (window.__parlavoxTestErrors ??= []);
  addEventListener("error", (e) => errors.push(String(e.error ?? e.message)));
  addEventListener("unhandledrejection", (e) => errors.push(`Unhandled rejection: ${e.reason}`));
}

// "Space" -> Key.SPACE, "ArrowUp" -> Key.ARROW_UP; a character stands for itself. Key.ENTER is
// the keypad's.
function webDriverKey(Key, name) {
  const constant = { Backspace: "BACK_SPACE", Enter: "RETURN" }[name]
    ?? name.replace(/(.)([A-Z])/g, "$1_$2").toUpperCase();
  const key = name.length === 1 ? name : Key[constant];
  if (!key) throw new Error(`no WebDriver key for ${name}`);
  return key;
}

async function launchWebKit({ home }) {
  const { By, Capabilities, Key, Select, WebDriver } = await import("selenium-webdriver");
  const { Executor, HttpClient } = await import("selenium-webdriver/http/index.js");
  // Xvfb takes a free display and names it on fd 3 once it serves: X's sockets are files in /tmp,
  // shared with all else on the machine whatever the network namespace.
  const xvfb = helper("Xvfb", ["-displayfd", "3", "-nolisten", "tcp", "-screen", "0", "1600x1200x24"],
    { stdio: ["ignore", "ignore", "pipe", "pipe"] });
  let webDriver, driver;
  try {
    const display = await Promise.race([
      new Promise((done) => xvfb.stdio[3].setEncoding("utf8").once("data", (n) => done(`:${n.trim()}`))),
      xvfb.ended.then(() => { throw new Error(`Xvfb ended: ${xvfb.log}`); }),
    ]);
    const url = `http://127.0.0.1:${await freePort()}`;
    // MiniBrowser inherits the driver's stdout: ignored, so nothing waits on it.
    webDriver = helper("WebKitWebDriver", [`--port=${new URL(url).port}`],
      { env: { ...homeEnv(home), DISPLAY: display } });
    for (let tries = 0; !(await fetch(`${url}/status`).then((r) => r.ok, () => false)); tries++) {
      if (tries === 100 || webDriver.exitCode !== null) throw new Error(`WebKitWebDriver: ${webDriver.log}`);
      await sleep(100);
    }
    // No browserName (the driver matches none), and args replace the driver's own, so
    // --automation must be among them.
    driver = await WebDriver.createSession(new Executor(new HttpClient(url)), new Capabilities({
      acceptInsecureCerts: true,
      "webkitgtk:browserOptions": {
        binary: MINIBROWSER,
        args: ["--automation", "--enable-mock-capture-devices=true", "--enable-media-stream=true",
               "--enable-webaudio=true", "--autoplay-policy=allow"],
      },
    }));
  } catch (err) {
    await webDriver?.stop();
    await xvfb.stop();
    throw err;
  }
  const version = `webkitgtk/${(await driver.getCapabilities()).get("browserVersion")}`;
  // WebDriver drives one window at a time: each page switches to its own before a command.
  let current = await driver.getWindowHandle();
  let opened = 0;

  return {
    version,
    async open(url, { width, height }) {
      // Later pages in windows of their own, as with Firefox: the first stays visible.
      if (opened++) await driver.switchTo().newWindow("window");
      const handle = (current = await driver.getWindowHandle());
      const use = async () => {
        if (current !== handle) await driver.switchTo().window((current = handle));
        return driver;
      };
      // The page gets the window less MiniBrowser's bars; the window is no narrower than its
      // toolbar, so a phone-sized page is 447 px wide here, not 400.
      const resize = async (wide, high) => {
        await driver.manage().window().setRect({ width: wide, height: high });
        const [w, h] = await driver.executeScript("return [innerWidth, innerHeight];");
        await driver.manage().window().setRect({ width: 2 * wide - w, height: 2 * high - h });
      };
      await resize(width, height);
      await driver.get(url);
      await loaded(driver);
      await driver.executeScript(catchErrors);
      let earlier = []; // the errors of its earlier loads, or all once it is closed
      let closed = false;
      const errors = async () => closed ? earlier
        : earlier.concat(await (await use()).executeScript("return window.__parlavoxTestErrors ?? [];"));
      const element = async (selector) => (await use()).findElement(By.css(selector));
      const act = async (build) => build((await use()).actions()).perform();
      return withQueries({
        evaluate: async (fn, arg) => (await use()).executeScript(fn, ...(arg === undefined ? [] : [arg])),
        click: async (selector) => (await element(selector)).click(),
        async fill(selector, text) {
          const input = await element(selector);
          await input.clear();
          await input.sendKeys(text);
        },
        select: async (selector, value) => new Select(await element(selector)).selectByValue(value),
        press: (name) => act((a) => a.keyDown(webDriverKey(Key, name)).keyUp(webDriverKey(Key, name))),
        keyDown: (name) => act((a) => a.keyDown(webDriverKey(Key, name))),
        keyUp: (name) => act((a) => a.keyUp(webDriverKey(Key, name))),
        async mouseDown(selector) {
          const target = await element(selector);
          await act((a) => a.move({ origin: target }).press());
        },
        mouseUp: () => act((a) => a.release()),
        resize: async (w, h) => resize(w, h), // no narrower than MiniBrowser's toolbar
        async reload() {
          earlier = await errors(); // and this page's window is the current one
          await driver.navigate().refresh();
          await loaded(driver);
          await driver.executeScript(catchErrors);
        },
        async screenshot(path) { // the viewport: classic WebDriver has no full-page capture
          writeFileSync(path, Buffer.from(await (await use()).takeScreenshot(), "base64"));
        },
        errors,
        async close() {
          earlier = await errors();
          closed = true;
          const left = await (await use()).close(); // the windows still open
          if (left?.length) await driver.switchTo().window((current = left[0]));
        },
      });
    },
    async close() {
      await driver.quit().catch(() => {}); // fails once the last window has gone
      await webDriver.stop();
      await xvfb.stop();
    },
  };
}

// mic: what its fake microphone plays. "file": the WAV file micFile; "tone": a sine of
// amplitude 0.1 at micHz; "mock": a sound of its own, no pitch to check.
// errorsFromStart: page errors are seen from the page's first script on (else from its load on).
export const engines = {
  chromium: { name: "chromium", mic: "file", errorsFromStart: true, launch: launchChromium },
  firefox: { name: "firefox", mic: "tone", errorsFromStart: true, launch: launchFirefox },
  webkit: { name: "webkit", mic: "mock", errorsFromStart: false, launch: launchWebKit },
};
