// The show mode for the wings: low-light colours, and talking shown as a border round the
// screen rather than a big lit button (style.css). Remembered on the device.
import { store } from "./store.js";

export function bindShowMode(button, root = document.documentElement) {
  const theme = document.querySelector('meta[name="theme-color"]');
  const normalTheme = theme?.content;
  const apply = (on) => {
    root.classList.toggle("show-mode", on);
    button.setAttribute("aria-pressed", String(on));
    if (theme) theme.content = on ? "#000000" : normalTheme;
  };
  apply(store.get("showMode", "") === "on");
  button.addEventListener("click", () => {
    const on = !root.classList.contains("show-mode");
    store.set("showMode", on ? "on" : "off");
    apply(on);
  });
}
