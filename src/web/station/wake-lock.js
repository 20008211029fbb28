// Keeps the screen on while joined: a phone that dims and locks may take the page, and comms,
// with it. The browser lets go of the lock when the page is hidden, and may refuse it (battery
// saver, no user gesture yet): it is asked again when the page is shown, and on the next tap.
export class ScreenLock {
  // onChange(): the state changed. `env` replaces the browser's navigator and document (tests).
  constructor(onChange, env = {}) {
    this.env = { navigator: globalThis.navigator, document: globalThis.document, ...env };
    this.onChange = onChange;
    this.wanted = false;
    this.sentinel = null;
    // "off" | "asking" | "held" | "released" (by the browser) | "refused" | "unsupported"
    this.state = this.env.navigator?.wakeLock ? "off" : "unsupported";
    this.env.document.addEventListener("visibilitychange", () => this.ask());
  }

  want(on) {
    if (on === this.wanted) return;
    this.wanted = on;
    if (on) return this.ask();
    const sentinel = this.sentinel;
    this.sentinel = null;
    sentinel?.release().catch(() => {});
    this.set("off");
  }

  // A tap: the gesture some browsers want before they grant it.
  retry() {
    if (this.state === "refused" || this.state === "released") this.ask();
  }

  async ask() {
    const { navigator, document } = this.env;
    if (!this.wanted || this.sentinel || this.state === "asking" || this.state === "unsupported"
      || document.visibilityState !== "visible") return;
    this.set("asking");
    try {
      const sentinel = await navigator.wakeLock.request("screen");
      if (!this.wanted) {
        sentinel.release().catch(() => {});
        return this.set("off");
      }
      this.sentinel = sentinel;
      sentinel.addEventListener("release", () => {
        if (this.sentinel !== sentinel) return;
        this.sentinel = null;
        this.set(this.wanted ? "released" : "off");
        this.ask(); // still visible: at once; hidden: when shown again
      });
      this.set("held");
    } catch {
      this.set(this.wanted ? "refused" : "off");
    }
  }

  set(state) {
    if (state === this.state) return;
    this.state = state;
    this.onChange?.();
  }
}
