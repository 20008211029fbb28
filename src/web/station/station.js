// Crew station: wires the link to the server, the session, the sound and the screen together.
import { KEEPALIVE_MS, MessageType, PATHS, SAMPLE_RATE, SILENCE_LIMIT_MS } from "../shared/constants.js";
import { Connection, renderBanner } from "../shared/connection.js";
import { StationAudio } from "./audio.js";
import { ChannelsView } from "./channels.js";
import { JoinScreen } from "./join-screen.js";
import { ListenView } from "./listen-view.js";
import { Listening } from "./listening.js";
import { RosterView } from "./roster.js";
import { Session } from "./session.js";
import { bindShowMode } from "./show-mode.js";
import { store } from "./store.js";
import { bindTalkButton, renderTalkButton } from "./talk-button.js";
import { TalkKey } from "./talk-key.js";
import { installStationHook, testHookWanted } from "./test-hook.js";
import { bindVolume } from "./volume.js";

// About half a second of audio queued on the socket: beyond it a stalled link sheds frames, not
// delay.
const SHED_ABOVE = 0.5 * SAMPLE_RATE * Int16Array.BYTES_PER_ELEMENT;

const $ = (id) => document.getElementById(id);
const audio = new StationAudio();
const key = new TalkKey();
// The server forgets a station silent for SILENCE_LIMIT_MS; hearing nothing for as long, so do we.
const link = new Connection(PATHS.intercom, {
  binary: true, deadMs: SILENCE_LIMIT_MS, checkEveryMs: KEEPALIVE_MS,
  onOpen: () => session.opened(),
  onMessage: (data) => data instanceof ArrayBuffer && receive(data),
  onLost: () => {
    session.closed();
    stopTalking();
  },
  onChange: render,
  onHide: () => session.farewell(),
});
const session = new Session({ send: (d) => link.send(d), sendAudio: (d) => link.send(d, SHED_ABOVE) });
if (testHookWanted()) installStationHook(session, audio);

const join = new JoinScreen({
  startAudio: () => audio.start(volume()),
  onJoin: (name, role) => {
    session.join(name, role);
    render();
  },
  onChange: render,
});
const channels = new ChannelsView(
  { toggles: $("channels"), noChannel: $("no-channel") },
  (channel) => {
    session.toggle(channel);
    renderTalk();
  });
const roster = new RosterView($("roster"));
const volume = bindVolume($("volume"), $("volume-out"), (gain) => audio.setVolume(gain));
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
    case MessageType.config:
      join.fillRoles(session.config.roles);
      break;
    case MessageType.welcome:
      join.error = "";
      channels.build(session);
      listenView.build(session);
      roster.render(session);
      updateTalking(); // a press still held through a rejoin carries on
      break;
    case MessageType.roster:
      return roster.render(session);
    case MessageType.rejoin:
      updateTalking();
      break;
    case MessageType.error:
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
const canTalk = () => session.joined && link.connected && audio.hasMic;

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
bindTalkButton($("ptt"), key, {
  canTalk, onStation, wake: () => audio.resume(), update: updateTalking, stop: stopTalking,
});

$("leave").addEventListener("click", () => {
  session.leave();
  stopTalking();
  render();
});

// --- Screen ---

function render() {
  $("join-screen").hidden = onStation();
  $("station-screen").hidden = !onStation();
  renderBanner($("banner"), link);
  join.render({
    connected: link.connected, haveShow: Boolean(session.config),
    waiting: Boolean(session.want && !session.joined),
  });
  $("me-name").textContent = session.want?.name ?? "";
  $("me-role").textContent = session.role;
  const conn = $("conn");
  conn.textContent = !link.connected ? "Reconnecting…" : session.joined ? "Connected" : "Joining…";
  conn.className = "conn " + (session.joined ? "ok" : "bad");
  $("mic-note").hidden = audio.hasMic || !audio.ctx;
  renderTalk();
}

function renderTalk() {
  renderTalkButton($("ptt"), {
    hasMic: audio.hasMic, talking: session.talking, latched: key.latched, idle: !canTalk(),
  });
  channels.render(session);
}

setInterval(() => {
  if (!onStation()) return;
  roster.light(session);
  listenView.light(session);
}, 100);

render();
link.start();
