// A big production's crew on UDP, for the monitor's browser test and its bench: the show (a stage
// manager on every channel, nine departments that talk among themselves and hear Main), the
// server on it, and its members, each from an address of its own (127.1.x.y), the server capping
// members per address.
import { spawn } from "node:child_process";
import { writeFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { sine, UdpCrew } from "./udp-crew.mjs";

export const departments = ["Sound", "Lighting", "Stage", "Fly", "Wardrobe", "Props", "Video", "Orchestra", "FOH"];
export const channels = ["Main", ...departments];
export const show = {
  show: "Big Show",
  channels,
  roles: [
    { name: "Stage Manager", talk: channels, listen: channels },
    ...departments.map((d) => ({ name: d, talk: [d], listen: ["Main", d] })),
  ],
};
const tone = sine(400, 0.25);

export class Member {
  constructor(i) {
    this.name = `Crew ${String(i).padStart(3, "0")}`;
    this.role = i % 50 === 0 ? "Stage Manager" : departments[i % departments.length];
    this.from = `127.1.${Math.floor(i / 250)}.${(i % 250) + 1}`;
    this.mask = this.role === "Stage Manager" ? 1 : 1 << channels.indexOf(this.role);
    this.crew = null;
  }

  async join(port) {
    this.crew = await UdpCrew.join(port, this.role, this.name, this.from);
  }

  leave() {
    this.crew?.leave();
    this.crew = null;
  }

  // Frame k of a tone on the member's own channel; with `skip`, the number one further on, so
  // that the server counts the frame between as lost.
  talk(k, skip = false) {
    if (!this.crew) return;
    if (skip) this.crew.seq++;
    this.crew.sendFrame(this.mask, tone(k));
  }
}

// `count` members, all joined on `port`.
export async function joinCrew(count, port) {
  const crew = Array.from({ length: count }, (_, i) => new Member(i));
  await Promise.all(crew.map((m) => m.join(port)));
  return crew;
}

// `talker` talks cleanly and `lossy` loses one frame in `every`, 50 frames a second each, until
// the returned function is called.
export function talk(talker, lossy, every = 5) {
  let k = 0;
  const timer = setInterval(() => {
    k++;
    talker.talk(k);
    lossy.talk(k, k % every === 0);
  }, 20);
  return () => clearInterval(timer);
}

// The server on the show, run from `dir` (its roles file written there), once it listens.
// Resolves to the child process; output() is what it has printed so far, stop() ends it and waits.
export async function startServer(program, dir) {
  writeFileSync(join(dir, "roles.json"), JSON.stringify(show));
  const server = spawn(resolve(program), [], { cwd: dir, stdio: ["ignore", "pipe", "inherit"] });
  let out = "";
  server.stdout.setEncoding("utf8").on("data", (text) => (out += text));
  for (let t = 0; !out.includes("Listening on UDP port"); t++) {
    if (t > 200 || server.exitCode !== null) throw new Error("the server did not start");
    await new Promise((done) => setTimeout(done, 50));
  }
  server.output = () => out;
  server.stop = () => {
    server.kill("SIGTERM");
    return new Promise((done) => (server.exitCode === null ? server.on("exit", done) : done()));
  };
  return server;
}
