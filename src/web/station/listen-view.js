// The channels the role hears, each a listen toggle with a level, and the announcements' level;
// a channel's row lights while someone is heard on it. The settings live in a Listening.
import { maskBits } from "./session.js";

function slider(label, value, onInput) {
  const input = document.createElement("input");
  Object.assign(input, { type: "range", min: 0, max: 100, step: 5, value });
  input.setAttribute("aria-label", label);
  const output = document.createElement("output");
  const show = () => (output.textContent = `${input.value} %`);
  show();
  input.addEventListener("input", () => {
    show();
    onInput(Number(input.value));
  });
  return [output, input];
}

export class ListenView {
  constructor(list, listening) {
    Object.assign(this, { list, listening });
  }

  // After each welcome: the role, and so what it hears, may have changed. Settings are kept per
  // `show` and role.
  build(session, show) {
    const { listening } = this;
    listening.load(show, session.role,
      maskBits(session.listenMask).map((bit) => ({ bit, name: session.channelName(bit) })));
    const rows = listening.channels.map(({ bit, name, on, level }) => {
      const li = document.createElement("li");
      li.dataset.bit = bit;
      const button = document.createElement("button");
      Object.assign(button, { type: "button", className: "toggle", textContent: name });
      button.setAttribute("aria-pressed", String(on));
      button.addEventListener("click", () => {
        listening.set(bit, { on: !listening.channel(bit).on });
        button.setAttribute("aria-pressed", String(listening.channel(bit).on));
      });
      li.append(button, ...slider(`${name} level`, level, (value) => listening.set(bit, { level: value })));
      return li;
    });
    const announce = document.createElement("li");
    announce.className = "announce";
    const label = document.createElement("span");
    label.textContent = "📢 Announcements";
    announce.append(label, ...slider("Announcements level", listening.announcements,
      (value) => listening.setAnnouncements(value)));
    this.list.replaceChildren(...rows, announce);
  }

  // Cheap enough to run every 100 ms: touches only the rows whose light changed.
  light(session) {
    const heard = session.hearing();
    for (const li of this.list.children) {
      const on = li.dataset.bit !== undefined && heard.includes(Number(li.dataset.bit));
      if (li.classList.contains("heard") !== on) li.classList.toggle("heard", on);
    }
  }
}
