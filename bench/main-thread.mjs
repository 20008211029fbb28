// A page's main-thread time by Chromium's own count, for the benches that drive a page
// (station-crew.mjs, monitor-crew.mjs), over a CDP session to it.

// Starts counting. The returned function gives the counters (Performance.getMetrics) now, by name.
export async function counters(cdp) {
  await cdp.send("Performance.enable");
  return async () => Object.fromEntries((await cdp.send("Performance.getMetrics")).metrics
    .map(({ name, value }) => [name, value]));
}

// With PROFILE in the environment, starts the JavaScript profiler; the returned function stops it
// and prints the `top` functions by their own time, in ms per second of `windowMs`.
export async function profiler(cdp, windowMs, top = 25) {
  if (!process.env.PROFILE) return async () => {};
  await cdp.send("Profiler.enable");
  await cdp.send("Profiler.start");
  return async () => {
    const { profile } = await cdp.send("Profiler.stop");
    const self = new Map();
    const dt = new Map(profile.nodes.map((n) => [n.id, 0]));
    profile.samples.forEach((id, i) => dt.set(id, dt.get(id) + (profile.timeDeltas[i] ?? 0)));
    for (const n of profile.nodes) {
      const key = `${n.callFrame.functionName || "(anon)"} ${n.callFrame.url.split("/").pop()}:${n.callFrame.lineNumber}`;
      self.set(key, (self.get(key) ?? 0) + dt.get(n.id) / 1000);
    }
    [...self].sort((a, b) => b[1] - a[1]).slice(0, top)
      .forEach(([k, ms]) => console.log(`  ${(ms / (windowMs / 1000)).toFixed(2).padStart(7)} ms/s  ${k}`));
  };
}

// One figure a line, names padded to `width`, fractions to one decimal.
export function printFigures(shown, width) {
  for (const [key, value] of Object.entries(shown)) {
    console.log(`${key.padEnd(width)} ${typeof value === "number" && !Number.isInteger(value) ? value.toFixed(1) : value}`);
  }
}
