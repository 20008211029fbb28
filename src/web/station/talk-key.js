// Push-to-talk as a beltpack's talk key, without the page: hold to talk; a short tap latches
// talking on and the next tap releases it; held while latched, it talks on and the lift ends the
// talk. The space bar talks while held (over a latch too, ending it when let go); Enter and a
// plain click (a keyboard or a screen reader activating the button) toggle the latch.

export const TAP_MS = 300; // a press shorter than this latches talking on
const CLICK_MS = 1000; // a click this soon after a press and its lift is theirs, not a toggle

export class TalkKey {
  constructor() {
    this.stop();
  }

  // The user wants the microphone open (whether it may open is the page's business).
  get active() {
    return this.held || this.latched || this.space;
  }

  // Talking goes on once every key and finger is let go.
  get sticky() {
    return this.latched && !this.overLatch && !(this.space && this.spaceOverLatch);
  }

  press(now) {
    this.overLatch = this.latched; // the lift of this press ends the talk, however long it was
    this.held = true;
    this.downAt = this.pointerAt = now;
  }

  release(now) {
    if (!this.held) return;
    this.held = false;
    if (this.overLatch) this.latched = false;
    else if (now - this.downAt < TAP_MS) this.latched = true;
    this.overLatch = false;
    this.pointerAt = now;
  }

  // The finger slid off or the browser took the pointer: a hold ends, a latch stays. (A touch
  // also "leaves" after its lift, before its click: nothing to end then.)
  cancel() {
    this.held = this.overLatch = false;
  }

  spaceDown() {
    this.spaceOverLatch = this.latched;
    this.space = true;
  }

  spaceUp() {
    if (this.space && this.spaceOverLatch) this.latched = false;
    this.space = false;
  }

  toggle() {
    this.latched = !this.latched;
    this.overLatch = this.spaceOverLatch = false;
  }

  // A click: after a press, part of it; alone, a keyboard's or a screen reader's activation.
  click(now) {
    if (now - this.pointerAt < CLICK_MS) this.pointerAt = -Infinity;
    else this.toggle();
  }

  // A key or finger released elsewhere never reports back: never leave the mic open on a guess.
  // A latch stays, unless a press over it was under way: its lift would have ended the talk.
  blur() {
    if (this.overLatch || this.spaceOverLatch) this.latched = false;
    Object.assign(this, { held: false, space: false, overLatch: false, spaceOverLatch: false });
  }

  stop() {
    Object.assign(this, {
      held: false, latched: false, space: false, downAt: 0, overLatch: false, spaceOverLatch: false,
      pointerAt: -Infinity,
    });
  }
}
