// The volume slider, 0–100 %, remembered on the device.
import { store } from "./store.js";

const DEFAULT = 80;

// Returns the volume as a gain (0–1); onChange(gain) as the user moves the slider.
export function bindVolume(input, output, onChange) {
  const gain = () => Number(input.value) / 100;
  const show = () => {
    output.textContent = `${input.value} %`;
  };
  const stored = Number(store.get("volume", DEFAULT));
  input.value = Number.isFinite(stored) ? Math.max(0, Math.min(100, stored)) : DEFAULT;
  show();
  input.addEventListener("input", () => {
    store.set("volume", input.value);
    show();
    onChange(gain());
  });
  return gain;
}
