// What the device remembers between visits (name, role, volume), and what this tab remembers
// across a reload or the browser discarding it (that it was joined, as whom). Private modes may
// refuse storage: then nothing is remembered, and nothing breaks.
const kept = (storage) => ({
  get(key, fallback) {
    try { return storage().getItem("parlavox." + key) ?? fallback; } catch { return fallback; }
  },
  set(key, value) {
    try { storage().setItem("parlavox." + key, String(value)); } catch { /* private mode */ }
  },
  remove(key) {
    try { storage().removeItem("parlavox." + key); } catch { /* private mode */ }
  },
});

export const store = kept(() => localStorage);

// Per tab: a new tab is a new station, and must not join a second time as the same person.
const tab = kept(() => sessionStorage);
export const tabJoin = {
  remember: (name, role) => tab.set("joined", JSON.stringify({ name, role })),
  forget: () => tab.remove("joined"),
  // {name, role} or null
  recall() {
    try {
      const { name, role } = JSON.parse(tab.get("joined", "null")) ?? {};
      return typeof name === "string" && typeof role === "string" ? { name, role } : null;
    } catch {
      return null;
    }
  },
};
