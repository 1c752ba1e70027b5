// The events that the page has: the newest MOST of them, all of them counted.

export const MOST = 50000;
export const LANES = ["service", "lumd", "bus", "driver", "hostapd"];
export const KINDS = ["service", "bus", "driver", "hostapd", "lumd", "reads"];
// Places in an event as the server sends it.
export const N = 0, T = 1, FROM_LANE = 2, TO_LANE = 3, FROM = 4, TO = 5, WHAT = 6, TEXT = 7, KIND = 8,
  NAMES = 9, BAD = 10;

export class Store {
  constructor() {
    this.filter = {kinds: new Set(KINDS.filter((kind) => kind !== "reads")), client: "", radio: "",
      text: ""};
    this.clear();
  }

  clear() {
    this.events = [];      // ascending by number
    this.shown = [];       // those of them that pass the filter, by their times: some are told of late
    this.received = 0;
    this.skipped = 0;
    this.counts = new Map();
    this.holes = new Map();  // number before which events are missing: how many
    this.last = null;      // number of the newest
    this.changes = 0;      // counts up whenever `shown` may be another
  }

  add(events) {
    for (const event of events) {
      if (this.last !== null && event[N] <= this.last) continue;  // sent again after a lost link
      if (this.last !== null && event[N] !== this.last + 1 && !this.holes.has(event[N])) {
        this.holes.set(event[N], event[N] - this.last - 1);  // the lab keeps them no longer
        this.skipped += event[N] - this.last - 1;
      }
      this.last = event[N];
      this.received++;
      this.counts.set(event[KIND], (this.counts.get(event[KIND]) ?? 0) + 1);
      this.events.push(event);
      if (this.passes(event)) this.insert(event);
    }
    this.forget();
    this.changes++;
  }

  insert(event) {
    let at = this.shown.length;
    while (at > 0 && this.shown[at - 1][T] > event[T]) at--;
    if (at === this.shown.length) this.shown.push(event);
    else this.shown.splice(at, 0, event);
  }

  // Those that were scrolled back to.
  addEarlier(events) {
    const first = this.events.length ? this.events[0][N] : Infinity;
    const earlier = events.filter((event) => event[N] < first);
    this.events = earlier.concat(this.events);
    this.shown = byTime(earlier.filter((event) => this.passes(event)).concat(this.shown));
    this.changes++;
  }

  skip(message) {
    const count = message.last - message.first + 1;
    this.skipped += count;
    this.holes.set(message.last + 1, count);
    for (const [kind, number] of Object.entries(message.kinds)) {
      this.counts.set(kind, (this.counts.get(kind) ?? 0) + number);
    }
    this.last = message.last;
    this.changes++;
  }

  forget() {
    if (this.events.length <= MOST * 1.2) return;
    const gone = this.events.length - MOST;
    const first = this.events[gone][N];
    this.events = this.events.slice(gone);
    this.shown = this.shown.filter((event) => event[N] >= first);
  }

  setFilter(changes) {
    Object.assign(this.filter, changes);
    this.shown = byTime(this.events.filter((event) => this.passes(event)));
    this.changes++;
  }

  passes(event) {
    const {kinds, client, radio, text} = this.filter;
    return kinds.has(event[KIND]) && (!client || event[NAMES].includes(client)) &&
      (!radio || event[NAMES].includes(radio)) &&
      (!text || `${event[WHAT]} ${event[TEXT]} ${event[FROM]} ${event[TO]}`.toLowerCase().includes(text));
  }
}

export function byTime(events) {
  return events.sort((one, other) => one[T] - other[T] || one[N] - other[N]);
}
