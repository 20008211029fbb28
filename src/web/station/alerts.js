// Getting the crew member's attention when the station goes off comms, or someone calls: the
// alarm bars, sounds made here (no fetch: the network may be what failed) and the vibrator.

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

// A call: a soft rising two-note chime, unlike the alarm's urgent falling beeps. Past the volume
// slider too, as a beltpack's call light is never turned down.
export function playChime(ctx, played) {
  if (!ctx || ctx.state !== "running") return false;
  const start = ctx.currentTime + 0.02;
  const tones = [659, 880].map((hz, i) => {
    const at = start + i * 0.25;
    const gain = new GainNode(ctx, { gain: 0 });
    const tone = new OscillatorNode(ctx, { frequency: hz });
    tone.connect(gain).connect(ctx.destination);
    gain.gain.setValueAtTime(0, at);
    gain.gain.linearRampToValueAtTime(0.4, at + 0.008);
    gain.gain.exponentialRampToValueAtTime(0.001, at + 0.9); // rings out like a bell
    tone.start(at);
    tone.stop(at + 0.95);
    tone.onended = () => gain.disconnect();
    return tone;
  });
  tones[1].addEventListener("ended", () => played?.());
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
