// The channels: toggles for those the role may talk on, chips for those it hears.
import { maskBits } from "./session.js";

export class ChannelsView {
  // onToggle(channel): the user flipped one talk channel.
  constructor({ toggles, listening, noChannel }, onToggle) {
    Object.assign(this, { toggles, listening, noChannel, onToggle });
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
    this.listening.replaceChildren(...maskBits(session.listenMask).map((i) => {
      const li = document.createElement("li");
      li.textContent = session.channelName(i);
      return li;
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
