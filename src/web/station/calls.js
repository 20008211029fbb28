// Calls to us, without the page: each stays on the list until it is answered (a talk that
// starts on one of its channels), dismissed, or CALL_MS old; the newest first, a few at most.
import { ANNOUNCER_ID } from "../shared/constants.js";

export const CALL_MS = 30 * 1000;
export const CALLS_KEPT = 5;
export const SHOW_CONTROL = "Show control";

// Who called, as the list names them (the server sends the roster that lists a caller before
// the call); null for an id it does not list.
export function callerName(id, roster) {
  if (id === ANNOUNCER_ID) return SHOW_CONTROL;
  const user = roster.find((u) => u.id === id);
  return user ? String(user.name ?? "") : null;
}

export class CallList {
  // onChange(): the list changed. timers: setTimeout and clearTimeout (a test's own, or the page's).
  constructor({ timers = globalThis, onChange = () => {} } = {}) {
    Object.assign(this, { timers, onChange });
    this.calls = []; // [{key, caller, name, mask, timer}], newest first
    this.nextKey = 1;
    this.talkingOn = 0;
    this.pressing = false;
  }

  // A call from `caller` on the channels of `mask` (ours: those we hear). Called again on the same
  // channels, it is the same call, made anew.
  add(caller, mask, name) {
    this.drop((c) => c.caller === caller && c.mask === mask, false);
    const call = { key: this.nextKey++, caller, name, mask };
    call.timer = this.timers.setTimeout(() => this.drop((c) => c === call), CALL_MS);
    this.calls.unshift(call);
    this.drop((c, i) => i >= CALLS_KEPT, false);
    this.onChange();
    return call;
  }

  // Our talk goes out on `mask` now (0: we are not talking); `pressing`: a finger or key is on the
  // talk key. A talk that starts, a channel added to it, or a new press over a latch answers the
  // calls on those channels: a talk already under way when a call came does not, by itself.
  talked(mask, pressing) {
    const fresh = pressing && !this.pressing ? mask : mask & ~this.talkingOn;
    Object.assign(this, { talkingOn: mask, pressing });
    if (fresh) this.drop((c) => (c.mask & fresh) !== 0);
  }

  dismiss(key) {
    this.drop((c) => c.key === key);
  }

  clear() {
    this.drop(() => true);
  }

  // Channels with a call waiting, as a mask.
  waiting() {
    return this.calls.reduce((mask, c) => (mask | c.mask) >>> 0, 0);
  }

  drop(gone, tell = true) {
    const kept = this.calls.filter((c, i) => !gone(c, i));
    if (kept.length === this.calls.length) return;
    for (const c of this.calls) if (!kept.includes(c)) this.timers.clearTimeout(c.timer);
    this.calls = kept;
    if (tell) this.onChange();
  }
}
