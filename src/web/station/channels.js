// The channels the role may talk on, each a toggle with its call key beside it (what it hears is
// listen-view.js's).
import { callKey, markCalled } from "./calls-view.js";
import { maskBits } from "./session.js";

export class ChannelsView {
  // onToggle(channel): the user flipped one talk channel; onCall(channel) -> whether a call went
  // out on it; said(text): for screen readers.
  constructor({ toggles, noChannel }, { onToggle, onCall, said }) {
    Object.assign(this, { toggles, noChannel, onToggle, onCall, said });
  }

  // After each welcome: the role's channels may have changed.
  build(session) {
    this.toggles.replaceChildren(...maskBits(session.talkMask).map((i) => {
      const name = session.channelName(i);
      const button = document.createElement("button");
      button.type = "button";
      button.className = "toggle";
      button.textContent = name;
      button.addEventListener("click", () => this.onToggle(i));
      const row = document.createElement("div");
      row.className = "channel";
      row.dataset.bit = i;
      row.append(button, callKey(name, () => this.onCall(i), this.said));
      return row;
    }));
  }

  // waiting: the channels with a call waiting, as a mask.
  render(session, waiting) {
    for (const row of this.toggles.children) {
      row.firstChild.setAttribute("aria-pressed", String(!((session.off >>> row.dataset.bit) & 1)));
    }
    markCalled(this.toggles, waiting);
    // Talking with every channel off sends nothing: say so, loudly while it happens.
    const none = session.joined && session.talkChannels() === 0;
    this.noChannel.hidden = !none;
    this.noChannel.classList.toggle("alert", none && session.talking);
  }
}
