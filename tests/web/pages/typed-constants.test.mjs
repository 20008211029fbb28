// The pages take every wire fact from the generated constants: none of their values may be typed
// into a page's code by hand, where it would silently go stale when the C++ changes.
import assert from "node:assert/strict";
import { readdirSync, readFileSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import { load, root } from "../../../tools/devkit/browser/pages.mjs";

const constants = await load("shared/constants.js");

// Numbers as decimals (from 10 up: smaller ones are everyday arithmetic) and as hex; paths other
// than "/" anywhere, in a URL too; message types where a message's "t" is set or compared
// ("join" is also a screen, "roster" an element).
function patterns() {
  const numbers = [];
  for (const value of Object.values(constants)) {
    if (typeof value === "number") numbers.push(value);
    if (value === constants.LINK_GRADES) {
      numbers.push(...Object.values(value).flatMap((grade) => [grade.warn, grade.bad]));
    }
  }
  const escape = (s) => s.replace(/[.*+?^${}()|[\]\\/]/g, "\\$&");
  const found = numbers.flatMap((v) => [
    ...(v >= 10 || !Number.isInteger(v) ? [`(?<![\\w.])${escape(String(v))}(?![\\w.])`] : []),
    ...(Number.isInteger(v) ? [`\\b0x0*${v.toString(16)}\\b`] : []),
  ]);
  const quoted = (strings) => `["'\`](?:${strings.map(escape).join("|")})["'\`]`;
  const paths = Object.values(constants.PATHS).filter((path) => path.length > 1);
  found.push(...paths.map((path) => `(?<![\\w.])${escape(path)}(?![\\w/-])`));
  found.push(`(?:\\bt\\s*(?::|===?)\\s*|\\bcase\\s+)${quoted(Object.values(constants.MessageType))}`);
  return new RegExp(found.join("|"), "gi");
}

test("no page types a wire constant by hand", () => {
  const forbidden = patterns();
  const files = readdirSync(root, { recursive: true })
    .filter((name) => name.endsWith(".js") && name !== join("shared", "constants.js"));
  assert.ok(files.length > 10, `found only ${files}`);
  const hits = [];
  for (const name of files) {
    readFileSync(join(root, name), "utf8").split("\n").forEach((line, i) => {
      const code = line.replace(/(?:^|\s)\/\/.*$|\/\*.*?\*\//g, "");
      for (const [literal] of code.matchAll(forbidden)) hits.push(`${name}:${i + 1}: ${literal}`);
    });
  }
  assert.deepEqual(hits, []);
});
