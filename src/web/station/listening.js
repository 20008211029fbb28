// What the station plays of what it hears: each channel the role hears is on or off with a level
// of its own, and announcements have their own level and cannot be switched off (they are how
// stage management reaches everyone). Kept on the device per show and role; no page here.
import { ANNOUNCER_ID } from "../shared/constants.js";

export const FULL = 100; // levels are percentages of the master volume

const level = (value) => (Number.isFinite(value) ? Math.max(0, Math.min(FULL, Math.round(value))) : FULL);

export class Listening {
  // storage: get(key, fallback) and set(key, value) of strings, as store.js's.
  constructor(storage) {
    this.storage = storage;
    this.key = null;
    this.channels = []; // [{bit, name, on, level}], in the role's order
    this.announcements = FULL;
  }

  // After each welcome: `channels` [{bit, name}] are the ones the role hears. Settings are kept
  // by channel name, so a show that reorders its channels keeps them.
  load(show, role, channels) {
    this.key = `listen.${JSON.stringify([show, role])}`;
    let saved;
    try {
      saved = JSON.parse(this.storage.get(this.key, "{}")) ?? {};
    } catch {
      saved = {}; // written by something else: start afresh
    }
    this.channels = channels.map(({ bit, name }) => {
      const kept = saved.channels?.[name];
      return { bit, name, on: kept?.on !== false, level: level(kept?.level) };
    });
    this.announcements = level(saved.announcements);
  }

  channel(bit) {
    return this.channels.find((c) => c.bit === bit);
  }

  // change: {on} and/or {level} for the channel at mask bit `bit`.
  set(bit, change) {
    const c = this.channel(bit);
    if (!c) return;
    if ("on" in change) c.on = Boolean(change.on);
    if ("level" in change) c.level = level(change.level);
    this.save();
  }

  setAnnouncements(value) {
    this.announcements = level(value);
    this.save();
  }

  // The gain (0–1) for a datagram from `sender` heard on `channels` (mask bits: our share of the
  // channels it was sent on); 0: not to be played. Several channels: the loudest one that is on.
  gain(sender, channels) {
    if (sender === ANNOUNCER_ID) return this.announcements / FULL;
    let best = 0;
    for (const c of this.channels) {
      if (c.on && channels.includes(c.bit)) best = Math.max(best, c.level);
    }
    return best / FULL;
  }

  save() {
    const channels = Object.fromEntries(this.channels.map((c) => [c.name, { on: c.on, level: c.level }]));
    if (this.key) this.storage.set(this.key, JSON.stringify({ channels, announcements: this.announcements }));
  }
}
