// A page's WebSocket to the server, kept up: reconnects with backoff, treats a silent socket as
// dead, and steps aside while the page sits in the back/forward cache. Shared by the station and
// the monitor; what goes over the socket is theirs.

const FIRST_RETRY_MS = 500; // doubling from here after each failure...
const LAST_RETRY_MS = 5000; // ...up to this
export const LOST_TEXT = "Connection lost — reconnecting…";
const UNREACHABLE_TEXT = "Cannot reach the intercom — retrying…";

export class Connection {
  // `path` on this page's host. Options:
  //   deadMs, checkEveryMs  nothing received for longer than deadMs (checked every checkEveryMs)
  //                         closes the socket, even one that never finished its handshake
  //   replyMs               a request marked with awaitReply() and nothing received within
  //                         replyMs of it closes the socket too
  //   binary                messages arrive as ArrayBuffer rather than Blob
  //   liveOnOpen            false: the link only counts as up once live() is called (the monitor
  //                         waits for its first good snapshot)
  //   admitted()            a promise whether the server would take the socket now, asked
  //                         before each attempt: a refused upgrade looks to a page like any lost
  //                         link; false stops the attempts until connect() is called again
  //   onOpen(), onMessage(data), onLost(), onChange(), onHide()  onHide runs on pagehide while
  //                         the socket is still open: the last chance to say goodbye
  // `env` replaces the browser's WebSocket, location, window, clock and timers (for Node's tests).
  constructor(path, options, env = {}) {
    this.path = path;
    this.options = { binary: false, liveOnOpen: true, ...options };
    this.env = {
      WebSocket: globalThis.WebSocket, location: globalThis.location, window: globalThis,
      now: () => Date.now(), timers: globalThis, ...env,
    };
    this.ws = null;
    this.connected = false;
    this.everConnected = false;
    this.retries = 0;
    this.stopped = false;
    this.retryTimer = 0;
    this.lastRx = 0;
    this.awaiting = null; // when the oldest request still unanswered went out
  }

  // Connects, and keeps at it for the life of the page.
  start() {
    const { window } = this.env;
    // A socket can stay "open" long after the network has gone; silence is the real signal.
    // An answer overdue is the quick signal; timed from the request, so a page whose timers the
    // browser slows down (a hidden tab) is not taken for a dead link.
    this.env.timers.setInterval(() => {
      const now = this.env.now();
      if (this.ws && (now - this.lastRx > this.options.deadMs
        || (this.awaiting !== null && now - this.awaiting > this.options.replyMs))) this.lost(this.ws);
    }, this.options.checkEveryMs);
    // Leaving closes the socket so the page can go into the back/forward cache; back, reopen it.
    window.addEventListener("pagehide", () => this.hide());
    window.addEventListener("pageshow", (e) => e.persisted && this.show());
    this.connect();
  }

  connect() {
    this.env.timers.clearTimeout(this.retryTimer);
    const { admitted } = this.options;
    if (!admitted) return this.open();
    // Unable to ask is no answer: the attempt itself fails and is retried as ever.
    admitted().then((yes) => !this.stopped && !this.ws && (yes ? this.open() : this.options.onChange?.()),
      () => !this.stopped && !this.ws && this.open());
  }

  open() {
    const { WebSocket, location } = this.env;
    const scheme = location.protocol === "http:" ? "ws:" : "wss:";
    let ws;
    try {
      ws = new WebSocket(`${scheme}//${location.host}${this.path}`);
    } catch {
      return this.retryLater();
    }
    if (this.options.binary) ws.binaryType = "arraybuffer";
    this.ws = ws;
    this.awaiting = null;
    this.lastRx = this.env.now(); // a handshake that hangs is caught by the watchdog too
    ws.onopen = () => {
      this.lastRx = this.env.now();
      if (this.options.liveOnOpen) this.live();
      this.options.onOpen?.();
      this.options.onChange?.();
    };
    ws.onmessage = (e) => {
      this.lastRx = this.env.now();
      this.awaiting = null;
      this.options.onMessage?.(e.data);
    };
    ws.onclose = ws.onerror = () => this.lost(ws);
  }

  // The link is up: resets the backoff.
  live() {
    if (this.connected) return;
    Object.assign(this, { connected: true, everConnected: true, retries: 0 });
  }

  // True if sent. Beyond `shedAbove` bytes already queued the message is dropped instead: a
  // stalled link should shed audio, not pile up delay.
  send(data, shedAbove = Infinity) {
    const ws = this.ws;
    if (ws?.readyState !== this.env.WebSocket.OPEN || ws.bufferedAmount > shedAbove) return false;
    ws.send(data);
    return true;
  }

  // Something just sent must be answered within replyMs (no effect without that option).
  awaitReply() {
    if (this.ws && this.options.replyMs && this.awaiting === null) this.awaiting = this.env.now();
  }

  lost(ws) {
    if (!ws || ws !== this.ws) return;
    ws.onopen = ws.onmessage = ws.onclose = ws.onerror = null;
    try { ws.close(); } catch { /* already closing */ }
    Object.assign(this, { ws: null, connected: false });
    this.options.onLost?.();
    if (this.stopped) this.options.onChange?.();
    else this.retryLater();
  }

  retryLater() {
    const delay = Math.min(LAST_RETRY_MS, FIRST_RETRY_MS * 2 ** this.retries);
    this.retries = Math.min(this.retries + 1, 10);
    this.retryTimer = this.env.timers.setTimeout(() => this.connect(), delay);
    this.options.onChange?.();
  }

  hide() {
    this.stopped = true;
    this.env.timers.clearTimeout(this.retryTimer);
    this.options.onHide?.();
    this.lost(this.ws);
  }

  show() {
    Object.assign(this, { stopped: false, retries: 0 });
    this.connect();
  }

  // The red line across the top: nothing on the first attempt, then why we are not connected.
  banner() {
    return {
      hidden: this.connected || (!this.everConnected && this.retries === 0),
      text: this.everConnected ? LOST_TEXT : UNREACHABLE_TEXT,
    };
  }
}

export function renderBanner(el, connection) {
  const { hidden, text } = connection.banner();
  el.hidden = hidden;
  if (el.textContent !== text) el.textContent = text;
}
