// The words of the last few announcements, with when each began, without the page: someone who
// missed one over the noise can read it.
export const ANNOUNCEMENTS_KEPT = 5;

// A time of day as the crew's own clocks show it: local, HH:MM.
export const clockTime = (date) =>
  [date.getHours(), date.getMinutes()].map((n) => String(n).padStart(2, "0")).join(":");

export class AnnouncementLog {
  constructor() {
    this.entries = []; // [{text, time}], newest first
  }

  add(text, date = new Date()) {
    this.entries.unshift({ text, time: clockTime(date) });
    this.entries.length = Math.min(this.entries.length, ANNOUNCEMENTS_KEPT);
  }

  clear() {
    this.entries = [];
  }
}
