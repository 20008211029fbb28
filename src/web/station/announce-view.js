// The last announcements' words, newest first, each with the time it began (an AnnouncementLog's).
// Drawn by difference: only a new one is added, and so only it is read out by a screen reader.
export class AnnouncementsView {
  constructor(list) {
    this.list = list;
    this.shown = new Map(); // entry -> <li>
  }

  render(log) {
    for (const [entry, li] of this.shown) {
      if (log.entries.includes(entry)) continue;
      li.remove();
      this.shown.delete(entry);
    }
    for (const entry of [...log.entries].reverse()) {
      if (this.shown.has(entry)) continue;
      const li = document.createElement("li");
      const when = document.createElement("time");
      when.textContent = when.dateTime = entry.time;
      li.append(when, " ", entry.text);
      this.list.prepend(li);
      this.shown.set(entry, li);
    }
    this.list.hidden = log.entries.length === 0;
  }
}
