// The station's side of the conversation with the intercom server, without the page: joining
// and staying joined, the masks, who is heard on which channel, and the numbering of our audio.
import { CHANNEL_LIMIT, Feature, KEEPALIVE_MS, MessageType } from "../shared/constants.js";
import { decode, encodeAudio, encodeControl } from "./protocol.js";

export const LIT_MS = 300; // a talker stays lit this long after their last frame
const FORGET_MS = 60000;
const REFUSED = "The intercom refused to let us join.";
// We show calls and announcements' words ourselves, make our own call chime, and say so when the
// operator removes us.
const FEATURES = [Feature.call, Feature.text, Feature.removed];

// The channels of a mask, lowest first.
export const maskBits = (mask) => [...Array(CHANNEL_LIMIT).keys()].filter((i) => (mask >>> i) & 1);

export class Session {
  // send(bytes): a control message for the server, dropped while the link is down.
  // sendAudio(bytes) -> whether it went: a stalled link may shed audio.
  // now() -> milliseconds: when frames arrive, for the talking lights.
  // timers: setInterval and clearInterval, the keepalive's (the page's own unless a test plays them).
  // awaitReply(): a ping just went out, which the server answers.
  constructor({ send, sendAudio = send, now = () => performance.now(), timers = globalThis, awaitReply = () => {} }) {
    Object.assign(this, { send, sendAudio, now, timers, awaitReply });
    this.connected = false;
    this.config = null; // {channels: [name], roles: [{name, talk, listen}]} from the server
    this.want = null; // {name, role} from the user's Join until Leave: what we rejoin as after a drop
    this.screen = "join"; // "station" from the welcome until Leave or a refusal
    this.joined = false;
    this.id = null;
    this.role = "";
    this.talkMask = 0;
    this.listenMask = 0;
    this.off = 0; // talk channels the user switched off
    this.roster = [];
    this.talking = false; // set by the page: our microphone is going out
    this.seq = 0; // of the next audio datagram; goes out modulo the field's width
    this.sent = 0;
    this.lastAudio = new Map(); // sender -> now() of their last frame
    this.lastOnChannel = new Array(CHANNEL_LIMIT).fill(-Infinity);
    this.keepalive = 0;
  }

  // The link is up: introduce ourselves; the server answers with the show's config.
  opened() {
    this.connected = true;
    this.control({ t: MessageType.hi });
    this.timers.clearInterval(this.keepalive);
    this.keepalive = this.timers.setInterval(() => {
      this.control({ t: MessageType.ping });
      this.awaitReply();
    }, KEEPALIVE_MS);
  }

  closed() {
    this.timers.clearInterval(this.keepalive);
    Object.assign(this, { connected: false, joined: false });
  }

  join(name, role) {
    Object.assign(this, { want: { name, role }, off: 0 });
    this.sendJoin();
  }

  leave() {
    this.control({ t: MessageType.bye });
    Object.assign(this, { want: null, joined: false, screen: "join", roster: [] });
  }

  // The page is going away: tell the server now rather than let it time us out.
  farewell() {
    if (this.joined) this.control({ t: MessageType.bye });
  }

  toggle(channel) {
    this.off = (this.off ^ (1 << channel)) >>> 0;
  }

  talkChannels() {
    return (this.talkMask & ~this.off) >>> 0;
  }

  // Calls the crew who hear `channel` (one we talk on); false if it could not go out.
  call(channel) {
    const mask = (this.talkMask & (1 << channel)) >>> 0;
    if (!this.joined || !this.connected || !mask) return false;
    this.control({ t: MessageType.call, mask });
    return true;
  }

  // One captured frame to the channels we talk on; false if nothing went out.
  sendFrame(samples) {
    const mask = this.talkChannels();
    if (!this.talking || !mask) return false;
    if (!this.sendAudio(encodeAudio(this.id, mask, this.seq, samples))) return false;
    this.seq = (this.seq + 1) >>> 0;
    this.sent++;
    return true;
  }

  // A datagram from the server. Returns what the page should know of it, or null:
  //   {type: "audio", sender, channels, seq, samples}  channels: where we heard it
  //   {type: MessageType.error, reason}           refused: back to the join screen
  //   {type: MessageType.call, caller, mask}    mask: the called channels we hear
  //   {type: MessageType.announce, text, mask}  an announcement starts, on the channels of mask
  //   {type: MessageType.config | welcome | roster | rejoin}
  receive(data) {
    const d = decode(data);
    if (!d) return null;
    if (d.kind === "audio") return this.heard(d);
    const m = d.message;
    switch (m.t) {
      case MessageType.config: this.onConfig(m); break;
      case MessageType.welcome:
        if (!this.want) {
          this.control({ t: MessageType.bye }); // they pressed Leave before the welcome came
          return null;
        }
        Object.assign(this, {
          joined: true, id: Number(m.id), role: String(m.role ?? this.want.role),
          talkMask: m.talkMask >>> 0, listenMask: m.listenMask >>> 0, screen: "station",
        });
        break;
      case MessageType.roster:
        this.roster = Array.isArray(m.users) ? m.users.filter((u) => u && typeof u === "object") : [];
        break;
      case MessageType.rejoin:
        this.joined = false; // the server lost track of us: put ourselves back as we were
        this.sendJoin();
        break;
      case MessageType.error:
        Object.assign(this, { want: null, joined: false, screen: "join" });
        return { type: m.t, reason: String(m.reason || REFUSED) };
      case MessageType.call:
      case MessageType.announce: {
        const mask = (Number(m.mask) & this.listenMask) >>> 0;
        if (!this.joined || !mask) return null;
        if (m.t === MessageType.call) {
          return Number.isInteger(m.id) && m.id !== this.id ? { type: m.t, caller: m.id, mask } : null;
        }
        return typeof m.text === "string" && m.text.trim() ? { type: m.t, text: m.text, mask } : null;
      }
      default: return null;
    }
    return { type: m.t };
  }

  onConfig(m) {
    const channels = Array.isArray(m.channels) ? m.channels.map(String) : [];
    // A changed show layout would make the old switched-off bits point at other channels.
    if (this.config && this.config.channels.join("\n") !== channels.join("\n")) this.off = 0;
    this.config = { channels, roles: Array.isArray(m.roles) ? m.roles.filter((r) => r && r.name) : [] };
    this.sendJoin(); // back after a drop: rejoin without asking the user
  }

  // The server relays each datagram with our share of its mask: the channels we heard it on.
  heard({ sender, mask, seq, samples }) {
    if (!this.joined || sender === this.id) return null;
    const now = this.now();
    this.lastAudio.set(sender, now);
    const channels = maskBits(mask);
    for (const i of channels) this.lastOnChannel[i] = now;
    return { type: "audio", sender, channels, seq, samples };
  }

  isTalking(id, now = this.now()) {
    if (id === this.id) return this.talking;
    return now - (this.lastAudio.get(id) ?? -Infinity) < LIT_MS;
  }

  // id -> milliseconds since each was last heard, for those heard within `ms` (we are heard now
  // while our microphone is out). Those silent for over a minute are forgotten, so that the cost
  // stays with the crew who talk, not with the crew.
  heardWithin(ms, now = this.now()) {
    const ages = new Map();
    for (const [id, at] of this.lastAudio) {
      if (now - at < ms) ages.set(id, now - at);
      else if (now - at > FORGET_MS) this.lastAudio.delete(id);
    }
    if (this.talking && this.id !== null) ages.set(this.id, 0);
    return ages;
  }

  // The channels someone was heard on within the last LIT_MS, lowest first.
  hearing(now = this.now()) {
    return maskBits(this.listenMask).filter((i) => now - this.lastOnChannel[i] < LIT_MS);
  }

  rosterView(now = this.now()) {
    return this.roster.map((u) => ({
      id: u.id, name: u.name, role: u.role, you: u.id === this.id, talking: this.isTalking(u.id, now),
    }));
  }

  channelName(i) {
    return this.config?.channels[i] ?? `Channel ${i + 1}`;
  }

  sendJoin() {
    if (this.want && this.connected) {
      this.control({ t: MessageType.join, name: this.want.name, role: this.want.role, features: FEATURES });
    }
  }

  control(message) {
    this.send(encodeControl(message));
  }
}
