// The join screen: a name and a role (both remembered on the device), and why we are not in yet.
import { store } from "./store.js";

const $ = (id) => document.getElementById(id);
const list = (a) => (Array.isArray(a) && a.length ? a.join(", ") : "nobody");

export class JoinScreen {
  // startAudio(): resolves once sound runs, rejects if it cannot (called from the user's gesture);
  // onJoin(name, role): audio is up, join as them; onChange(): something shown here changed.
  constructor({ startAudio, onJoin, onChange }) {
    this.roles = [];
    this.starting = false;
    this.error = "";
    this.onChange = onChange;
    $("name").value = store.get("name", "");
    $("role").addEventListener("change", () => this.showRoleInfo());
    $("join-form").addEventListener("submit", async (e) => {
      e.preventDefault();
      const name = $("name").value.trim();
      const role = $("role").value;
      if (!name || !role || this.starting) return;
      store.set("name", name);
      store.set("role", role);
      Object.assign(this, { starting: true, error: "" });
      onChange();
      try {
        await startAudio();
      } catch (err) {
        Object.assign(this, { starting: false, error: `Audio could not start: ${err?.message || err}` });
        return onChange();
      }
      this.starting = false;
      onJoin(name, role);
    });
  }

  fillRoles(roles) {
    this.roles = roles;
    const select = $("role");
    const keep = select.value || store.get("role", "");
    select.replaceChildren(...roles.map((r) => {
      const option = document.createElement("option");
      option.value = option.textContent = String(r.name);
      return option;
    }));
    if (roles.some((r) => String(r.name) === keep)) select.value = keep;
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
}
