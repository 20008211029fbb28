// How to give this page the microphone again, in the browser at hand, from its user agent.
const HOW = [
  // [user agent pattern, what to do]: the first that matches; iOS first, where every browser is
  // Safari's engine but each keeps its own settings.
  [/CriOS/, "In the iPhone's Settings › Chrome, turn on Microphone; then Try again."],
  [/FxiOS/, "In the iPhone's Settings › Firefox, turn on Microphone; then Try again."],
  [/iPhone|iPad|iPod/, "Tap “aA” in the address bar, then Website Settings › Microphone › Allow; then Try again."],
  [/SamsungBrowser/, "Tap the lock in the address bar, then Permissions › Microphone › Allow; then Try again."],
  [/Android.*Firefox/, "Tap the lock in the address bar and allow the Microphone; then Try again."],
  [/Firefox/, "Click the crossed-out microphone in the address bar and clear its block; then Try again."],
  [/Android/, "Tap the icon left of the address, then Permissions › Microphone › Allow; then Try again."],
  [/Chrome|Chromium|Edg\//, "Click the icon left of the address and set Microphone to Allow; then Try again."],
  [/Safari/, "Open Safari › Settings for This Website… and set Microphone to Allow; then Try again."],
];

export function micHelp(userAgent) {
  const found = HOW.find(([pattern]) => pattern.test(String(userAgent)));
  return found ? found[1] : "Allow this site the microphone in the browser's site settings; then Try again.";
}
