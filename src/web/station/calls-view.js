// Calls on the screen: a call key beside each talk channel, the calls waiting with who made them,
// and the channels they light (the list itself is a CallList's).
import { decoration, el } from "./dom.js";
import { maskBits } from "./session.js";

const SENT_MS = 1500; // the key shows the call went out, and a press meanwhile is not another

function labelled(button, icon, text, name) {
  // Read as "Call Stage".
  button.replaceChildren(decoration(icon), ` ${text}`, el("span", "visually-hidden", ` ${name}`));
}

// A beltpack's call button for the channel `name`. call() -> whether the call went out; said(text):
// for screen readers.
export function callKey(name, call, said) {
  const button = el("button", "call-key");
  button.type = "button";
  labelled(button, "📞", "Call", name);
  let busy = false;
  button.addEventListener("click", () => {
    if (busy) return;
    busy = true;
    const sent = call();
    button.classList.add(sent ? "sent" : "failed");
    labelled(button, sent ? "✓" : "✗", sent ? "Called" : "Not sent:", name);
    said(sent ? `Called ${name}` : `Off comms: the call to ${name} did not go out`);
    setTimeout(() => {
      busy = false;
      button.className = "call-key";
      labelled(button, "📞", "Call", name);
    }, SENT_MS);
  });
  return button;
}

// Lights the rows (children with a data-bit) of the channels in `mask`.
export function markCalled(container, mask) {
  for (const row of container.children) {
    const on = row.dataset.bit !== undefined && ((mask >>> row.dataset.bit) & 1) === 1;
    if (row.classList.contains("called") !== on) row.classList.toggle("called", on);
  }
}

export class CallsView {
  // box: shown while calls wait; list: their <ul>; live: said to screen readers as calls come.
  // channelName(bit); onDismiss(key).
  constructor({ box, list, live }, channelName, onDismiss) {
    Object.assign(this, { box, list, live, channelName, onDismiss });
    this.rows = new Map(); // key -> <li>, kept while the call waits, so that focus stays put
  }

  where(call) {
    return maskBits(call.mask).map((bit) => this.channelName(bit)).join(", ");
  }

  // A new call: said at once, wherever the focus is.
  arrived(call) {
    this.live.textContent = `Call from ${call.name ?? "someone"} on ${this.where(call)}`;
  }

  render(calls) {
    const keys = new Set(calls.map((c) => c.key));
    for (const [key, li] of this.rows) {
      if (keys.has(key)) continue;
      li.remove();
      this.rows.delete(key);
    }
    calls.forEach((call, i) => {
      const li = this.rows.get(call.key) ?? this.row(call);
      if (this.list.children[i] !== li) this.list.insertBefore(li, this.list.children[i] ?? null);
    });
    this.box.hidden = calls.length === 0;
    if (!calls.length) this.live.textContent = "";
  }

  row(call) {
    const li = el("li", "call");
    const text = el("span", "call-text");
    const who = el("strong", "who", call.name ?? "Someone");
    text.append(decoration("📞 "), who, ` calls on ${this.where(call)}`);
    const dismiss = el("button", "quiet", "Dismiss");
    dismiss.type = "button";
    dismiss.setAttribute("aria-label", `Dismiss the call from ${who.textContent}`);
    dismiss.addEventListener("click", () => this.onDismiss(call.key));
    li.append(text, dismiss);
    this.rows.set(call.key, li);
    return li;
  }
}
