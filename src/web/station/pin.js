// The crew PIN: whether the server takes this browser onto the crew, and sending the PIN for a
// session. The session is a cookie the page never sees; the server alone can tell it is good.
import { PATHS } from "../shared/constants.js";

// Whether the intercom's socket would be taken: the show has no PIN (`info`, the station's info,
// a promise), or this browser's session is still good (an empty post only asks).
export async function crewAdmitted(info, fetch) {
  if (!(await info)?.pin) return true;
  const answer = await fetch(PATHS.pin, { method: "POST", body: "" });
  return answer.status !== 401;
}

// What went wrong, for the form; empty when the PIN was taken.
export async function sendPin(pin, fetch) {
  try {
    const answer = await fetch(PATHS.pin, { method: "POST", body: pin });
    return pinRefusal(answer.status);
  } catch {
    return "Cannot reach the intercom: try again.";
  }
}

export function pinRefusal(status) {
  if (status === 204) return "";
  if (status === 403) return "Wrong PIN.";
  if (status === 429) return "Too many tries: wait a minute, then try again.";
  return `The intercom said no (${status}): try again.`;
}
