// Push-to-talk as the user works it, without the page: hold the button to talk, a short tap
// latches talking on and the next tap releases it; the space bar talks while held.

export const TAP_MS = 300; // a press shorter than this latches talking on

export class TalkKey {
  constructor() {
    this.stop();
  }

  // The user wants the microphone open (whether it may open is the page's business).
  get active() {
    return this.held || this.latched || this.space;
  }

  press(now) {
    if (this.latched) {
      this.latched = false;
      this.unlatchPress = true; // this press only releases the latch
    } else {
      this.held = true;
      this.downAt = now;
    }
  }

  release(now) {
    if (this.unlatchPress) {
      this.unlatchPress = false;
    } else if (this.held) {
      this.held = false;
      if (now - this.downAt < TAP_MS) this.latched = true;
    }
  }

  // The finger slid off or the browser took the pointer: a hold ends, a latch stays.
  cancel() {
    this.unlatchPress = false;
    this.held = false;
  }

  spaceDown() {
    this.space = true;
  }

  spaceUp() {
    this.space = false;
  }

  // A key or finger released elsewhere never reports back: never leave the mic open on a guess.
  blur() {
    this.space = this.held = false;
  }

  stop() {
    Object.assign(this, { held: false, latched: false, space: false, downAt: 0, unlatchPress: false });
  }
}
