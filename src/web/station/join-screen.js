// The join screen: a name and a role (both remembered on the device), and why we are not in yet.
import { fitName, sameNameOnCrew } from "./names.js";
import { store } from "./store.js";

const $ = (id) => document.getElementById(id);
const list = (a) => (Array.isArray(a) && a.length ? a.join(", ") : "nobody");

export class JoinScreen {
  // startAudio(): resolves once sound runs, rejects if it cannot (called from the user's gesture);
  // onJoin(name, role): audio is up, join as them; onChange(): something shown here changed.
  constructor({ startAudio, onJoin, onChange }) {
    Object.assign(this, { startAudio, onJoin, onChange });
    this.roles = [];
    this.crew = []; // the last crew list seen, if any: to point out a name already on it
    this.starting = false;
    this.error = "";
    const name = $("name");
    name.value = fitName(store.get("name", ""), true);
    // The field holds what the server would keep, no more.
    const fit = () => {
      const fitted = fitName(name.value);
      if (fitted !== name.value) name.value = fitted;
      this.showNameTaken();
    };
    name.addEventListener("input", (e) => e.isComposing || fit()); // an IME's word is whole at its end
    name.addEventListener("compositionend", fit);
    name.addEventListener("change", () => (name.value = fitName(name.value, true)));
    $("role").addEventListener("change", () => this.showRoleInfo());
    $("join-form").addEventListener("submit", (e) => {
      e.preventDefault();
      const role = $("role").value;
      name.value = fitName(name.value, true);
      if (!name.value || !role || this.starting) return;
      store.set("name", name.value);
      store.set("role", role);
      this.start(name.value, role);
    });
  }

  // Joins as `name` in `role`: from the form, or by itself after a reload (then the sound may
  // have to wait for a tap, and the station says so).
  async start(name, role) {
    Object.assign(this, { starting: true, error: "" });
    this.onChange();
    try {
      await this.startAudio();
    } catch (err) {
      Object.assign(this, { starting: false, error: `Audio could not start: ${err?.message || err}` });
      return this.onChange();
    }
    this.starting = false;
    this.onJoin(name, role);
  }

  // No role is chosen for the user, unless this device chose it before: the first role of a
  // show often talks everywhere.
  fillRoles(roles) {
    this.roles = roles;
    const select = $("role");
    const keep = select.value || store.get("role", "");
    const none = document.createElement("option");
    Object.assign(none, { value: "", textContent: "Choose your role", disabled: true, selected: true });
    select.replaceChildren(none, ...roles.map((r) => {
      const option = document.createElement("option");
      option.value = option.textContent = String(r.name);
      return option;
    }));
    if (roles.some((r) => String(r.name) === keep)) select.value = keep;
  }

  // Looked at as the name is typed: a roster comes several times a second in a big crew.
  setCrew(crew) {
    this.crew = crew;
  }

  // waiting: we asked to join and have no answer yet.
  render({ connected, haveShow, waiting }) {
    $("join-status").textContent = !connected ? "Connecting…" : !haveShow ? "Waiting for the show…"
      : this.starting ? "Starting audio…" : waiting ? "Joining…" : "Connected";
    $("join").disabled = !connected || !haveShow || this.starting || waiting;
    $("join-error").textContent = this.error;
    $("join-error").hidden = !this.error;
    this.showRoleInfo();
  }

  showRoleInfo() {
    const role = this.roles.find((r) => String(r.name) === $("role").value);
    $("role-info").textContent = role ? `Talks to ${list(role.talk)} · hears ${list(role.listen)}` : "";
  }

  showNameTaken() {
    const other = sameNameOnCrew($("name").value, this.crew);
    $("name-taken").textContent = other ? nameTakenText(other) : "";
    $("name-taken").hidden = !other;
  }
}

// Pointed out, not refused: two crew members may share a name, but should know it.
export const nameTakenText = (other) =>
  `“${other.name}” (${other.role}) is already on the crew: a different name tells you apart.`;
