// The channels the role may talk on, as toggles (what it hears is listen-view.js's).
import { maskBits } from "./session.js";

export class ChannelsView {
  // onToggle(channel): the user flipped one talk channel.
  constructor({ toggles, noChannel }, onToggle) {
    Object.assign(this, { toggles, noChannel, onToggle });
  }

  // After each welcome: the role's channels may have changed.
  build(session) {
    this.toggles.replaceChildren(...maskBits(session.talkMask).map((i) => {
      const button = document.createElement("button");
      button.type = "button";
      button.className = "toggle";
      button.textContent = session.channelName(i);
      button.addEventListener("click", () => this.onToggle(i));
      button.dataset.bit = i;
      return button;
    }));
  }

  render(session) {
    for (const button of this.toggles.children) {
      button.setAttribute("aria-pressed", String(!((session.off >>> button.dataset.bit) & 1)));
    }
    // Talking with every channel off sends nothing: say so, loudly while it happens.
    const none = session.joined && session.talkChannels() === 0;
    this.noChannel.hidden = !none;
    this.noChannel.classList.toggle("alert", none && session.talking);
  }
}
