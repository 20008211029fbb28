// The crew list's order, without the page: who is talking, then who shares a channel with us,
// then everyone else (whom the page keeps folded away).
import { ANNOUNCER_ID } from "../shared/constants.js";

export const ANNOUNCEMENT = "📢 Announcement";

// Role and channel names as the server compares them: Unicode spellings aside.
const nameKey = (name) => String(name).normalize("NFD");

// role name -> {talk, listen}: each role's channels as masks, from the show's config.
export function roleMasks(config) {
  const bit = new Map((config?.channels ?? []).map((name, i) => [nameKey(name), i]));
  const mask = (names) => (Array.isArray(names) ? names : [])
    .reduce((m, name) => (bit.has(nameKey(name)) ? (m | (1 << bit.get(nameKey(name)))) >>> 0 : m), 0);
  return new Map((config?.roles ?? []).map((r) => [nameKey(r.name), { talk: mask(r.talk), listen: mask(r.listen) }]));
}

// Whether someone in `role` is heard by us, or hears us, on some channel. A role the show does
// not know (it changed under us) is shown rather than folded away.
export function sharesChannel(role, { talkMask, listenMask }, masks) {
  const theirs = masks.get(nameKey(role));
  return !theirs || ((theirs.talk & listenMask) | (theirs.listen & talkMask)) !== 0;
}

const collator = new Intl.Collator(undefined, { sensitivity: "base", numeric: true });

// The roster by name, then id, with the announcements last: once per roster, not per look.
export function sortCrew(users) {
  return [...users, { id: ANNOUNCER_ID, name: ANNOUNCEMENT, role: "" }]
    .sort((a, b) => (a.id === ANNOUNCER_ID) - (b.id === ANNOUNCER_ID)
      || collator.compare(String(a.name ?? ""), String(b.name ?? "")) || a.id - b.id);
}

// `sorted` from sortCrew; me: {id, talkMask, listenMask}; talking: Set of ids heard lately.
// Returns {first, rest}, lists of users: first the talking, then us, then those we share a
// channel with and the announcements; rest everyone else. Each part keeps the sorted order.
export function arrangeCrew(sorted, { me, masks, talking }) {
  const talkers = [];
  const mine = [];
  const rest = [];
  for (const user of sorted) {
    if (talking.has(user.id)) talkers.push(user);
    else if (user.id === me.id) mine.unshift(user);
    else if (user.id === ANNOUNCER_ID || sharesChannel(user.role, me, masks)) mine.push(user);
    else rest.push(user);
  }
  return { first: talkers.concat(mine), rest };
}
