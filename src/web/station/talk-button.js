// The big talk button and the space bar, feeding a TalkKey; and how the button looks.

const typing = (el) => el instanceof Element && (el.isContentEditable
  || el.matches("input:not([type=range]):not([type=checkbox]), textarea, select"));

// canTalk(): the mic may open now; onStation(): the station screen is up; wake(): resume audio
// (iOS wants a gesture); update(): the key changed; stop(): let go of everything.
export function bindTalkButton(button, key, { canTalk, onStation, wake, update, stop }) {
  button.addEventListener("pointerdown", (e) => {
    if (e.button !== 0 || !canTalk()) return;
    e.preventDefault();
    wake();
    key.press(performance.now());
    update();
  });
  button.addEventListener("pointerup", () => {
    key.release(performance.now());
    update();
  });
  for (const type of ["pointercancel", "pointerleave"]) {
    button.addEventListener(type, () => {
      key.cancel();
      update();
    });
  }
  button.addEventListener("contextmenu", (e) => e.preventDefault());

  addEventListener("keydown", (e) => {
    if (e.code !== "Space" || !onStation() || typing(e.target)) return;
    e.preventDefault(); // no page scroll, and no "click" on a focused toggle
    if (e.repeat || key.space || !canTalk()) return;
    wake();
    key.spaceDown();
    update();
  });
  addEventListener("keyup", (e) => {
    if (e.code !== "Space" || !key.space) return;
    e.preventDefault();
    key.spaceUp();
    update();
  });
  addEventListener("blur", () => {
    key.blur();
    update();
  });
  document.addEventListener("visibilitychange", () => document.hidden && stop());
  document.addEventListener("pointerdown", wake, true);
}

export function renderTalkButton(button, { hasMic, talking, latched, idle }) {
  button.disabled = !hasMic;
  button.classList.toggle("talking", talking);
  button.classList.toggle("latched", talking && latched);
  button.classList.toggle("idle", idle);
  button.setAttribute("aria-pressed", String(talking));
  button.textContent = !hasMic ? "Listening only" : !talking ? "Hold to talk"
    : latched ? "Talking — tap to release" : "Talking";
}
