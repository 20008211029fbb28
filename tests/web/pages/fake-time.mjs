// Time played by the test: a clock, and timers that run on it only when the test moves it on.
export class FakeTime {
  #now;
  #timers = new Map(); // id -> {due, every, run}
  #nextId = 1;

  constructor(now = 0) {
    this.#now = now;
  }

  now = () => this.#now;
  setTimeout = (run, ms) => this.#add(run, ms, 0);
  setInterval = (run, ms) => this.#add(run, ms, Math.max(1, ms));
  clearTimeout = (id) => this.#timers.delete(id);
  clearInterval = (id) => this.#timers.delete(id);

  // Moves the clock on by `ms`, running each timer when its time comes, in time order.
  tick(ms) {
    const end = this.#now + ms;
    for (;;) {
      let next = null;
      for (const [id, timer] of this.#timers) {
        if (timer.due <= end && (!next || timer.due < next[1].due)) next = [id, timer];
      }
      if (!next) break;
      const [id, timer] = next;
      this.#now = timer.due;
      if (timer.every) timer.due += timer.every;
      else this.#timers.delete(id);
      timer.run();
    }
    this.#now = end;
  }

  #add(run, ms, every) {
    const id = this.#nextId++;
    this.#timers.set(id, { due: this.#now + Math.max(0, ms), every, run });
    return id;
  }
}
