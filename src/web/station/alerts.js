// Getting the crew member's attention when the station goes off comms: the alarm bars, a sound
// made here (no fetch: the network may be what failed) and the vibrator.

// Two falling two-tone beeps, straight to the speakers: past the volume slider, so heard even at
// volume 0. False if the sound is not running (then it cannot be heard either); played() once
// the sound has rendered it.
export function playAlert(ctx, played) {
  if (!ctx || ctx.state !== "running") return false;
  const start = ctx.currentTime + 0.02;
  const gain = new GainNode(ctx, { gain: 0 });
  const tone = new OscillatorNode(ctx, { type: "triangle" });
  tone.connect(gain).connect(ctx.destination);
  [880, 587, 880, 587].forEach((hz, i) => {
    const at = start + i * 0.2;
    tone.frequency.setValueAtTime(hz, at);
    gain.gain.setValueAtTime(0, at);
    gain.gain.linearRampToValueAtTime(0.6, at + 0.008); // ramps: no clicks
    gain.gain.setValueAtTime(0.6, at + 0.15);
    gain.gain.linearRampToValueAtTime(0, at + 0.17);
  });
  tone.onended = () => {
    gain.disconnect();
    played?.();
  };
  tone.start(start);
  tone.stop(start + 0.8);
  return true;
}

export const buzz = (pattern) => navigator.vibrate?.(pattern) ?? false;

// One element per kind of alarm, each role="alert": its text is set as it goes up, so that
// screen readers announce it, and emptied as it clears.
export function renderAlarms(elements, alarms) {
  for (const [kind, el] of Object.entries(elements)) {
    const text = alarms.find((a) => a.kind === kind)?.text ?? "";
    if (el.textContent !== text) el.textContent = text;
    el.hidden = !text;
  }
}
