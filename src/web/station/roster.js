// The crew list: who is talking first, then who shares our channels, the rest folded behind a
// count. Drawn by difference, so a crew of hundreds costs the rows that change, not the list.
import { arrangeCrew, roleMasks, sortCrew } from "./crew.js";
import { el } from "./dom.js";
import { LIT_MS } from "./session.js";

const RECENT_MS = 2500; // a talker keeps their place at the top through the pauses of a talk

function row(user, you) {
  const li = el("li");
  li.append(el("span", "dot"), el("span", "who"), el("span", "what"));
  fill(li, user, you);
  return li;
}

function fill(li, user, you) {
  const name = String(user.name ?? "");
  const role = String(user.role ?? "");
  if (li.dataset.name === name && li.dataset.role === role && li.dataset.you === String(you)) return;
  Object.assign(li.dataset, { id: user.id, name, role, you });
  const who = li.children[1];
  who.textContent = name;
  if (you) {
    who.append(" ", el("span", "you", "you"));
  }
  li.children[2].textContent = role;
}

export class RosterView {
  // list: the <ul>; more: the button that unfolds the rest.
  constructor(list, more) {
    Object.assign(this, { list, more });
    this.rows = new Map(); // id -> <li>, kept while the id is on the crew
    this.sorted = sortCrew([]);
    this.masks = new Map();
    this.config = null;
    this.recent = new Set();
    this.lit = new Set();
    this.expanded = false;
    this.stale = false;
    this.cost = 0; // milliseconds spent here, for the test hook
    this.session = null;
    more.addEventListener("click", () => {
      this.expanded = !this.expanded;
      this.arrange();
    });
  }

  // A new roster (or welcome): sort it once, then show what changed.
  render(session) {
    const start = performance.now();
    this.session = session;
    if (session.config !== this.config) {
      this.config = session.config;
      this.masks = roleMasks(session.config);
    }
    this.sorted = sortCrew(session.roster.filter((u) => typeof u.id === "number"));
    const ids = new Set(this.sorted.map((u) => u.id));
    for (const [id, li] of this.rows) {
      if (!ids.has(id)) {
        li.remove();
        this.rows.delete(id);
      }
    }
    for (const user of this.sorted) {
      const li = this.rows.get(user.id);
      if (li) fill(li, user, user.id === session.id);
    }
    this.recent = this.stale ? new Set() : new Set(session.heardWithin(RECENT_MS).keys());
    this.arrange();
    this.light(session);
    this.cost += performance.now() - start;
  }

  // Off comms: nothing we show of the crew is current.
  setStale(stale) {
    if (stale === this.stale) return;
    this.stale = stale;
    this.list.classList.toggle("stale", stale);
    if (this.session) this.light(this.session);
  }

  // Ten times a second: lights only the rows whose light changed, and moves talkers up or down
  // only when who talks changes.
  light(session) {
    const start = performance.now();
    const ages = this.stale ? new Map() : session.heardWithin(RECENT_MS);
    const lit = new Set([...ages].filter(([, age]) => age < LIT_MS).map(([id]) => id));
    if (ages.size !== this.recent.size || [...ages.keys()].some((id) => !this.recent.has(id))) {
      this.recent = new Set(ages.keys());
      this.arrange();
    }
    for (const id of new Set([...lit, ...this.lit])) {
      const li = this.rows.get(id);
      const on = lit.has(id);
      if (li && li.classList.contains("talking") !== on) {
        li.classList.toggle("talking", on);
        li.children[0].title = on ? "talking" : "";
      }
    }
    this.lit = lit;
    this.cost += performance.now() - start;
  }

  arrange() {
    const session = this.session;
    if (!session) return;
    const me = { id: session.id, talkMask: session.talkMask, listenMask: session.listenMask };
    const { first, rest } = arrangeCrew(this.sorted, { me, masks: this.masks, talking: this.recent });
    const shown = this.expanded ? first.concat(rest) : first;
    const wanted = new Set(shown.map((u) => u.id));
    for (const li of [...this.list.children]) {
      if (!wanted.has(Number(li.dataset.id))) li.remove();
    }
    let next = this.list.firstElementChild;
    for (const user of shown) {
      let li = this.rows.get(user.id);
      if (!li) {
        li = row(user, user.id === session.id);
        if (this.lit.has(user.id)) li.classList.add("talking");
        this.rows.set(user.id, li);
      }
      if (li === next) next = next.nextElementSibling;
      else this.list.insertBefore(li, next);
    }
    this.more.hidden = rest.length === 0;
    const label = this.expanded ? "Show fewer" : `Show ${rest.length} more`;
    if (this.more.textContent !== label) this.more.textContent = label;
    this.more.setAttribute("aria-expanded", String(this.expanded));
  }
}
