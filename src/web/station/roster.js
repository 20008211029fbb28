// The crew list, announcements last, each lit while they are heard talking.
import { ANNOUNCER_ID } from "../shared/constants.js";

function row(id, name, role, you) {
  const li = document.createElement("li");
  li.dataset.id = id;
  const dot = document.createElement("span");
  dot.className = "dot";
  const who = document.createElement("span");
  who.className = "who";
  who.textContent = name;
  if (you) {
    const mark = document.createElement("span");
    mark.className = "you";
    mark.textContent = "you";
    who.append(" ", mark);
  }
  const what = document.createElement("span");
  what.className = "what";
  what.textContent = role;
  li.append(dot, who, what);
  return li;
}

export class RosterView {
  constructor(list) {
    this.list = list;
  }

  render(session) {
    const rows = session.rosterView()
      .map((u) => row(u.id, String(u.name ?? ""), String(u.role ?? ""), u.you));
    rows.push(row(ANNOUNCER_ID, "📢 Announcement", "", false));
    this.list.replaceChildren(...rows);
    this.light(session);
  }

  // Cheap enough to run every 100 ms: touches only the rows whose light changed.
  light(session) {
    const now = session.now();
    for (const li of this.list.children) {
      const on = session.isTalking(Number(li.dataset.id), now);
      if (li.classList.contains("talking") !== on) {
        li.classList.toggle("talking", on);
        li.querySelector(".dot").title = on ? "talking" : "";
      }
    }
  }
}
