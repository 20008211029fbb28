// The intercom on the lock screen and in the notification shade, where the platform shows a page's
// media session; a headset's play/pause button, where it is routed here, toggles the talk latch.
const media = globalThis.navigator?.mediaSession;
let shown = "";

export function bindMediaSession(toggleLatch) {
  if (!media) return;
  for (const action of ["play", "pause"]) {
    try {
      media.setActionHandler(action, toggleLatch);
    } catch { /* an action this browser does not know */ }
  }
}

// who: {show, name, role} while joined, else null; talking: the mic is out ("playing").
export function showMediaSession(who, talking) {
  if (!media) return;
  const key = who ? `${who.show}\n${who.name}\n${who.role}` : "";
  if (key !== shown) {
    shown = key;
    media.metadata = who && typeof MediaMetadata === "function"
      ? new MediaMetadata({ title: `${who.name} — ${who.role}`, artist: who.show, album: "Parlavox intercom" })
      : null;
  }
  media.playbackState = !who ? "none" : talking ? "playing" : "paused";
}
