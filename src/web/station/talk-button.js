// The big talk button, the space bar and Enter, feeding a TalkKey; and how the button looks.

const typing = (el) => el instanceof Element && (el.isContentEditable
  || el.matches("input:not([type=range]):not([type=checkbox]), textarea, select"));
// Enter belongs to whatever control has the focus, unless that is the talk button itself.
const ownsEnter = (el, button) => el instanceof Element && el !== button
  && Boolean(el.closest("button, input, select, textarea, a[href], summary, dialog, [contenteditable]"));

// canTalk(): the mic may open now; onStation(): the station screen is up; wake(): resume audio
// (iOS wants a gesture; any tap or key does it); update(): the key changed.
export function bindTalkButton(button, key, { canTalk, onStation, wake, update }) {
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
  // A screen reader's activation is a click with no press before it: it toggles the latch.
  button.addEventListener("click", () => {
    if (!canTalk()) return;
    wake();
    key.click(performance.now());
    update();
  });

  addEventListener("keydown", (e) => {
    if (e.code !== "Space" || !onStation() || typing(e.target)) return;
    e.preventDefault(); // no page scroll, and no "click" on a focused toggle
    if (e.repeat || key.space || !canTalk()) return;
    wake();
    key.spaceDown();
    update();
  });
  addEventListener("keydown", (e) => {
    if (e.key !== "Enter" || !onStation() || ownsEnter(e.target, button)) return;
    e.preventDefault(); // no click on the focused talk button: this is the toggle
    if (e.repeat || !canTalk()) return;
    wake();
    key.toggle();
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
  // Hidden, a latch stays on for as long as the sound runs (the page stops it when it does not);
  // a hold ends, as on blur.
  document.addEventListener("visibilitychange", () => {
    if (!document.hidden) return;
    key.blur();
    update();
  });
  document.addEventListener("pointerdown", wake, true);
  document.addEventListener("keydown", wake, true);
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
