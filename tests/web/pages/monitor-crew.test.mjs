// The monitor's crew table without a page: the rows a snapshot makes, their order, the filter, the
// header's counts and which cells a new snapshot touches.
import assert from "node:assert/strict";
import { test } from "node:test";
import { load } from "../../../tools/devkit/browser/pages.mjs";

const { changedCells, countsOf, DEFAULT_SORT, filterRows, rowOf, sortRows } = await load("monitor/crew.js");

const channels = ["Main", "Sound", "Lighting"];
const peer = (id, name, role, extra = {}) =>
  ({ id, name, role, transport: "udp", talk: 2, listen: 3, loss: 0, jitterMs: 0, lastSeenMs: 500, ...extra });
const crew = [
  peer(1, "Ann", "Sound", { talking: true, levelDbfs: -20 }),
  peer(2, "bob", "Lighting", { talk: 4, listen: 5, loss: 0.02 }), // a warning
  peer(3, "Cy", "Stage Manager", { talk: 7, listen: 7, loss: 0.12 }), // a bad link
  peer(10, "Dee", "Sound", { lastSeenMs: 7000 }), // bad too, but lost nothing
  peer(4, "Crew 2", "Sound"),
  peer(5, "Crew 10", "Sound", { jitterMs: 20 }),
].map((p) => rowOf(p, channels));
const ids = (rows) => rows.map((r) => r.id).join(" ");

test("rows sort by any column, problems first by default, and filter by every word", () => {
  for (const [sort, expected] of [[DEFAULT_SORT, "3 10 2 5 1 4"], [{ column: "link" }, "1 4 5 2 10 3"],
    [{ column: "name" }, "1 2 4 5 3 10"], [{ column: "name", descending: true }, "10 3 5 4 2 1"],
    [{ column: "level", descending: true }, "1 2 4 5 3 10"], [{ column: "loss", descending: true }, "3 2 1 4 5 10"],
    [{ column: "seen", descending: true }, "10 1 2 4 5 3"], [{ column: "role" }, "2 1 4 5 10 3"]]) {
    assert.equal(ids(sortRows(crew, sort)), expected, JSON.stringify(sort));
  }
  for (const [query, expected] of [["", "1 2 3 10 4 5"], ["CREW", "4 5"], ["light", "2 3"], ["sound ann", "1"],
    ["main lighting", "2 3"], ["nobody", ""]]) {
    assert.equal(ids(filterRows(crew, query)), expected, query);
  }
  assert.deepEqual(countsOf(crew), { joined: 6, talking: 1, warnings: 4 });
});

test("channels show as chips and a new snapshot touches only the cells that changed", () => {
  assert.deepEqual(crew.slice(0, 3).map((r) => r.cells.chips),
    ["hear:Main|both:Sound", "hear:Main|both:Lighting", "both:All channels"]);
  for (const [change, expected] of [[{}, []], [{ lastSeenMs: 2900 }, []], [{ lastSeenMs: 4000 }, ["seen", "seenGrade"]],
    [{ loss: 0.2 }, ["health", "loss", "lossGrade"]], [{ talking: true, levelDbfs: -30.2 }, ["talking", "level"]],
    [{ listen: 4 }, ["chips", "channelsTitle"]]]) {
    const after = rowOf(peer(2, "bob", "Lighting", { talk: 4, listen: 5, loss: 0.02, ...change }), channels).cells;
    assert.deepEqual(changedCells(crew[1].cells, after), expected, JSON.stringify(change));
  }
});
