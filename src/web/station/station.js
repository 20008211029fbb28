// Crew station: wires the link to the server, the session, the sound and the screen together.
import { KEEPALIVE_MS, MessageType, PATHS, SAMPLE_RATE, SILENCE_LIMIT_MS } from "../shared/constants.js";
import { Connection, renderBanner } from "../shared/connection.js";
import { AlarmEdges, assess } from "./alarms.js";
import { buzz, playAlert, playChime, renderAlarms } from "./alerts.js";
import { AnnouncementLog } from "./announcements.js";
import { AnnouncementsView } from "./announce-view.js";
import { StationAudio } from "./audio.js";
import { CallList, callerName } from "./calls.js";
import { CallsView, markCalled } from "./calls-view.js";
import { ChannelsView } from "./channels.js";
import { JoinScreen, nameTakenText } from "./join-screen.js";
import { ListenView } from "./listen-view.js";
import { Listening } from "./listening.js";
import { bindMediaSession, showMediaSession } from "./media-session.js";
import { micHelp } from "./mic-help.js";
import { crewAdmitted, sendPin } from "./pin.js";
import { sameNameOnCrew } from "./names.js";
import { RosterView } from "./roster.js";
import { Session } from "./session.js";
import { bindShowMode } from "./show-mode.js";
import { store, tabJoin } from "./store.js";
import { bindTalkButton, renderTalkButton } from "./talk-button.js";
import { TalkKey } from "./talk-key.js";
import { installStationHook, testHookWanted } from "./test-hook.js";
import { bindVolume } from "./volume.js";
import { ScreenLock } from "./wake-lock.js";

// About half a second of audio queued on the socket: beyond it a stalled link sheds frames, not
// delay.
const SHED_ABOVE = 0.5 * SAMPLE_RATE * Int16Array.BYTES_PER_ELEMENT;
// The server answers each ping, and one goes out every KEEPALIVE_MS: a ping unanswered for half
// that is a dead link, so a link that dies is noticed within 1.5 × KEEPALIVE_MS (and a check).
const REPLY_MS = KEEPALIVE_MS / 2;
const CHECK_MS = KEEPALIVE_MS / 16;
const BUZZ = { link: [300, 150, 300, 150, 300], audio: [600, 200, 600], call: [150, 100, 150] };

const $ = (id) => document.getElementById(id);
// The show's name, for the lock screen and the tab: asked for once, beside the intercom's link.
let show = "";
const info = fetch(PATHS.stationInfo).then((answer) => answer.json()).catch(() => ({}));
// The show has a crew PIN and this browser has no session (or it has run out): the PIN form.
let pinNeeded = false;
const audio = new StationAudio();
const key = new TalkKey();
// Silence as long as the server's own limit is a dead link too, even before any ping (a
// handshake that hangs).
const link = new Connection(PATHS.intercom, {
  binary: true, deadMs: SILENCE_LIMIT_MS, checkEveryMs: CHECK_MS, replyMs: REPLY_MS,
  admitted: () => crewAdmitted(info, fetch).then((yes) => {
    pinNeeded = !yes;
    return yes;
  }),
  onOpen: () => session.opened(),
  onMessage: (data) => data instanceof ArrayBuffer && receive(data),
  onLost: () => {
    session.closed();
    stopTalking();
  },
  onChange: render,
  onHide: () => session.farewell(),
});
const session = new Session({
  send: (d) => link.send(d), sendAudio: (d) => link.send(d, SHED_ABOVE), awaitReply: () => link.awaitReply(),
});
const screenLock = new ScreenLock(render);
const edges = new AlarmEdges();
const seen = { alerts: 0, rosters: 0, chimes: 0 }; // for the test hook

const join = new JoinScreen({
  startAudio: () => audio.start(volume()),
  onJoin: (name, role) => {
    tabJoin.remember(name, role);
    session.join(name, role);
    render();
  },
  onChange: render,
});
const channels = new ChannelsView({ toggles: $("channels"), noChannel: $("no-channel") }, {
  onToggle: (channel) => {
    session.toggle(channel);
    renderTalk();
  },
  onCall: (channel) => session.call(channel),
  said: (text) => ($("call-said").textContent = text),
});
const calls = new CallList({ onChange: () => renderCalls() });
const callsView = new CallsView({ box: $("calls"), list: $("call-list"), live: $("call-live") },
  (bit) => session.channelName(bit), (key) => calls.dismiss(key));
const announcements = new AnnouncementLog();
const announcementsView = new AnnouncementsView($("announced"));
const roster = new RosterView($("roster"), $("crew-more"));
const volume = bindVolume($("volume"), $("volume-out"), (gain) => audio.setVolume(gain));
let rejoinTried = false;
const listening = new Listening(store);
const listenView = new ListenView($("listen"), listening);
bindShowMode($("show-mode"));

function receive(data) {
  const event = session.receive(data);
  switch (event?.type) {
    case "audio": {
      const gain = listening.gain(event.sender, event.channels);
      if (gain > 0) audio.play(event.sender, event.samples, gain, event.seq);
      return;
    }
    case MessageType.config: {
      join.fillRoles(session.config.roles);
      // A reloaded or discarded tab that was joined joins again by itself.
      const again = tabJoin.recall();
      if (again && !session.want && !rejoinTried) {
        rejoinTried = true;
        $("name").value = again.name;
        join.start(again.name, again.role);
      }
      break;
    }
    case MessageType.welcome:
      join.error = "";
      channels.build(session);
      listenView.build(session, show);
      roster.render(session);
      updateTalking(); // a press still held through a rejoin carries on
      break;
    case MessageType.roster:
      seen.rosters++;
      roster.render(session);
      join.setCrew(session.roster.filter((u) => u.id !== session.id)); // for after a Leave
      return renderNameTaken();
    case MessageType.rejoin:
      updateTalking();
      break;
    case MessageType.call: {
      const call = calls.add(event.caller, event.mask, callerName(event.caller, session.roster));
      callsView.arrived(call);
      playChime(audio.ctx, () => seen.chimes++);
      buzz(BUZZ.call);
      return;
    }
    case MessageType.announce:
      announcements.add(event.text);
      return announcementsView.render(announcements);
    case MessageType.error:
      tabJoin.forget();
      join.error = event.reason;
      stopTalking();
      break;
    default:
      return;
  }
  render();
}

// --- Talking ---

const onStation = () => session.screen === "station";
const now = () => assess({
  onStation: onStation(), linkUp: link.connected, joined: session.joined, audio: audio.state,
  talking: session.talking, wakeLock: screenLock.state, show,
});
const canTalk = () => audio.hasMic && now().canTalk;

function updateTalking() {
  const talking = canTalk() && key.active;
  if (talking !== session.talking) {
    session.talking = talking;
    audio.setCapturing(talking);
  }
  renderTalk();
  roster.light(session);
}

function stopTalking() {
  key.stop();
  updateTalking();
}

audio.onFrame = (frame) => session.sendFrame(frame);
// The sound stopped (the system took it, the phone was locked): talking ends with it, latch and
// all, and the next tap brings it back.
audio.onState = () => {
  if (audio.state !== "running") stopTalking();
  render();
};
bindTalkButton($("ptt"), key, {
  canTalk, onStation, update: updateTalking,
  wake: () => {
    audio.resume();
    screenLock.retry();
  },
});
bindMediaSession(() => {
  if (!canTalk()) return;
  key.toggle();
  updateTalking();
});

$("leave").addEventListener("click", () => $("leave-dialog").showModal());
$("leave-dialog").addEventListener("close", () => {
  if ($("leave-dialog").returnValue !== "leave") return;
  session.leave();
  tabJoin.forget();
  calls.clear();
  announcements.clear();
  announcementsView.render(announcements);
  stopTalking();
  render();
});
$("mic-retry").addEventListener("click", () => audio.retryMic().then(render));
$("pin-form").addEventListener("submit", (e) => {
  e.preventDefault();
  $("pin-send").disabled = true;
  sendPin($("pin").value, fetch).then((refusal) => {
    $("pin-send").disabled = false;
    $("pin-error").textContent = refusal;
    $("pin-error").hidden = !refusal;
    if (!refusal) {
      pinNeeded = false;
      $("pin").value = "";
      link.connect(); // and a session that was joined joins again, as after any lost link
    }
    render();
  });
});

// --- Screen ---

function render() {
  const state = now();
  const wasAsking = !$("pin-screen").hidden;
  $("pin-screen").hidden = !pinNeeded;
  $("join-screen").hidden = pinNeeded || onStation();
  $("station-screen").hidden = pinNeeded || !onStation();
  if (pinNeeded && !wasAsking) $("pin").focus();
  renderBanner($("banner"), link);
  if (state.alarms.length) $("banner").hidden = true; // the alarm says it, and more
  join.render({
    connected: link.connected, haveShow: Boolean(session.config),
    waiting: Boolean(session.want && !session.joined),
  });
  $("me-name").textContent = session.want?.name ?? "";
  $("me-role").textContent = session.role;
  const conn = $("conn");
  conn.textContent = state.status;
  conn.className = "conn " + (state.status === "Connected" ? "ok" : "bad");
  renderAlarms({ link: $("alarm-link"), audio: $("alarm-audio") }, state.alarms);
  for (const kind of edges.raised(state.alarms)) {
    if (kind === "link") playAlert(audio.ctx, () => seen.alerts++);
    buzz(BUZZ[kind]);
  }
  roster.setStale(state.crewStale);
  $("crew-stale").hidden = !state.crewStale;
  screenLock.want(onStation());
  $("wake-note").textContent = state.wakeNote;
  $("wake-note").hidden = !state.wakeNote;
  const denied = !audio.hasMic && ["NotAllowedError", "SecurityError"].includes(audio.micError);
  $("mic-note").hidden = audio.hasMic || !audio.ctx || denied;
  $("mic-denied").hidden = !denied || !onStation();
  if (denied) $("mic-help").textContent = micHelp(navigator.userAgent);
  $("talk-hint").hidden = !audio.hasMic;
  renderNameTaken();
  renderTalk();
}

function renderNameTaken() {
  const other = onStation() && sameNameOnCrew(session.want?.name ?? "", session.roster, session.id);
  $("name-dup").textContent = other ? nameTakenText(other) : "";
  $("name-dup").hidden = !other;
}

let liveText = "";
function renderTalk() {
  const talking = session.talking;
  calls.talked(talking ? session.talkChannels() : 0, key.held || key.space); // answers calls
  renderTalkButton($("ptt"), {
    hasMic: audio.hasMic, talking, latched: key.sticky, idle: !canTalk(),
  });
  lightCalls();
  // Said to a screen reader as it changes, wherever the focus is.
  const said = talking ? (key.sticky ? "Talking — latched" : "Talking") : liveText && "Not talking";
  if (said !== liveText) $("talk-live").textContent = liveText = said;
  const { title } = now();
  if (document.title !== title) document.title = title;
  showMediaSession(session.joined ? {
    show: show || "Parlavox", name: session.want?.name ?? "", role: session.role,
  } : null, talking);
}

function renderCalls() {
  callsView.render(calls.calls);
  lightCalls();
}

function lightCalls() {
  const waiting = calls.waiting();
  channels.render(session, waiting);
  markCalled($("listen"), waiting);
}

if (testHookWanted()) {
  installStationHook(session, audio, {
    alarms: () => now().alarms.map((a) => a.kind), audio: () => audio.state, wakeLock: () => screenLock.state,
    latched: () => key.latched, alerts: () => seen.alerts, rosters: () => seen.rosters, crewCost: () => roster.cost,
    suspendAudio: () => audio.ctx?.suspend(),
    chimes: () => seen.chimes,
  });
}

setInterval(() => {
  if (!onStation()) return;
  roster.light(session);
  listenView.light(session);
}, 100);

render();
link.start();
info.then((known) => {
  show = typeof known?.show === "string" ? known.show : "";
  if (session.joined) listenView.build(session, show); // settings are kept per show
  render();
}).catch(() => {}); // the page works without it: only the tab and the lock screen name the show
