// What the device remembers between visits (name, role, volume). Private modes may refuse
// storage: then nothing is remembered, and nothing breaks.
export const store = {
  get(key, fallback) {
    try { return localStorage.getItem("parlavox." + key) ?? fallback; } catch { return fallback; }
  },
  set(key, value) {
    try { localStorage.setItem("parlavox." + key, String(value)); } catch { /* private mode */ }
  },
};
