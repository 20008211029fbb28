// Crew names as the server keeps them: cut to NAME_LIMIT user-perceived characters. And whether
// a name is already someone else's on the crew.
import { NAME_LIMIT } from "../shared/constants.js";

const segmenter = typeof Intl.Segmenter === "function"
  ? new Intl.Segmenter(undefined, { granularity: "grapheme" })
  : null;

// User-perceived characters (grapheme clusters); code points where the browser cannot tell.
const characters = (text) => (segmenter ? Array.from(segmenter.segment(text), (s) => s.segment) : Array.from(text));

// The name as typed so far, as the server would keep it: no leading space, at most NAME_LIMIT
// characters. Done: no trailing space either (while typing, a space may be on its way to a word).
export function fitName(text, done = false) {
  const kept = characters(String(text).trimStart());
  const name = kept.length > NAME_LIMIT ? kept.slice(0, NAME_LIMIT).join("") : kept.join("");
  return done ? name.trimEnd() : name;
}

// Names a crew would take for the same: case, spacing and Unicode spelling aside.
const key = (name) => String(name).normalize("NFC").trim().replace(/\s+/g, " ").toLocaleLowerCase();

// The first crew member other than `myId` whose name is `name`, or null.
export function sameNameOnCrew(name, roster, myId = null) {
  const wanted = key(name);
  if (!wanted) return null;
  return roster.find((u) => u && u.id !== myId && key(u.name ?? "") === wanted) ?? null;
}
