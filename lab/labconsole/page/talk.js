// The conversation: a row an event, an arrow between two of five lanes. Only the rows that can be seen
// are elements, however many there are.

import {clock, duration, el} from "./dom.js";
import {BAD, FROM, FROM_LANE, KIND, KINDS, LANES, N, T, TEXT, TO, TO_LANE, WHAT} from "./store.js";

const ROW = 26;            // px, as talk.css has it
const GAP = 2.0;           // s between two events that are marked
const SPARE = 6;           // rows beyond what can be seen, while somebody looks back
const KIND_WORDS = {service: "service", bus: "bus", driver: "driver", hostapd: "hostapd",
  lumd: "other", reads: "reads"};

export class Talk {
  constructor(root, store, link, open) {
    Object.assign(this, {store, link, open, live: true, paused: false, drawn: null, selected: null});
    this.root = root;
    this.rows = [];        // row elements that are used again and again
    this.fetching = false;
    this.noMore = false;
    root.append(this.makeHead(), this.makeList());
    addEventListener("resize", () => this.draw(true));
  }

  makeHead() {
    this.pauseButton = el("button.pause", {type: "button", "aria-pressed": "false",
      "aria-keyshortcuts": "p", onclick: () => this.pause(!this.paused)}, "Pause");
    this.text = el("input", {type: "search", placeholder: "filter", "aria-label": "Filter by text",
      "aria-keyshortcuts": "/", size: 10,
      oninput: () => this.filter({text: this.text.value.trim().toLowerCase()})});
    this.clients = el("select", {"aria-label": "Filter by client",
      onchange: () => this.filter({client: this.clients.value})}, el("option", {value: ""}, "any client"));
    this.radios = el("select", {"aria-label": "Filter by radio",
      onchange: () => this.filter({radio: this.radios.value})}, el("option", {value: ""}, "any radio"));
    this.count = el("span.count", {});
    return el("div.talk-head", {},
      el("h2", {}, "Conversation"), this.pauseButton, this.text, this.clients, this.radios,
      el("fieldset.kinds", {}, el("legend", {}, "Kinds"), KINDS.map((kind) => this.makeKind(kind))), this.count);
  }

  makeKind(kind) {
    const box = el("input", {type: "checkbox", checked: this.store.filter.kinds.has(kind), onchange: () => {
      const kinds = this.store.filter.kinds;
      if (box.checked) kinds.add(kind); else kinds.delete(kind);
      this.filter({kinds});
    }});
    return el("label", {"data-kind": kind}, box, KIND_WORDS[kind]);
  }

  makeList() {
    this.filler = el("div.filler", {role: "presentation"});
    this.list = el("div.rows", {tabIndex: 0, role: "listbox", "aria-label": "Events",
      onscroll: () => this.scrolled(), onkeydown: (event) => this.key(event)}, this.filler);
    this.lanes = el("div.lanes", {"aria-hidden": "true"}, el("span.time", {}, "time"),
      el("span.lane-names", {}, LANES.map((lane) => el("span", {"data-lane": lane}, lane))),
      el("span", {}, "what"));
    this.nothing = el("p.nothing", {});
    return el("div.talk-body", {}, this.lanes, this.nothing, this.list);
  }

  clear(live) {
    this.live = live;
    this.selected = null;
    this.noMore = false;
    this.drawn = this.top = null;
    this.pause(false);
  }

  pause(paused) {
    this.paused = paused;
    this.pauseButton.setAttribute("aria-pressed", String(paused));
    this.pauseButton.textContent = paused ? "Continue" : "Pause";
    this.draw(true);
  }

  filter(changes) {
    this.store.setFilter(changes);
    this.draw(true);
  }

  // Of the state: whom the list can be filtered by.
  know(clients, radios) {
    fill(this.clients, clients);
    fill(this.radios, radios);
  }

  scrolled() {
    const atEnd = this.list.scrollTop + this.list.clientHeight >= this.list.scrollHeight - ROW;
    if (!this.setting && !this.paused && !atEnd) this.pause(true);
    this.setting = false;
    if (this.list.scrollTop < ROW) this.fetchEarlier();
    this.draw(true);
  }

  async fetchEarlier() {
    const first = this.store.events[0]?.[N];
    if (this.fetching || this.noMore || !first || first === 1) return;
    this.fetching = true;
    try {
      const answer = await this.link.ask("earlier", {before: first});
      this.noMore = !answer.events?.length;
      this.store.addEarlier(answer.events ?? []);
      this.draw(true);
    } catch { /* the link is lost: the next scroll asks again */ } finally {
      this.fetching = false;
    }
  }

  resize() {
    this.filler.style.height = `${this.store.shown.length * ROW}px`;
  }

  // Called once a frame; does nothing unless something has changed.
  draw(force = false) {
    if (!force && (this.drawn === this.store.changes)) return;
    if (!this.list.clientHeight) return;  // not to be seen
    this.drawn = this.store.changes;
    this.tellCount();
    this.resize();
    if (this.paused) this.hold();
    else this.stick();
    const spare = this.paused ? SPARE : 0;
    const top = Math.floor(this.list.scrollTop / ROW), first = Math.max(top - spare, 0);
    this.top = {event: this.store.shown[top], index: top};
    const count = Math.ceil(this.list.clientHeight / ROW) + 1 + 2 * spare;
    const events = this.store.shown.slice(first, first + count);
    while (this.rows.length < events.length) this.rows.push(this.makeRow());
    events.forEach((event, index) => this.fillRow(this.rows[index], event, first + index));
    this.rows.forEach((row, index) => { row.node.hidden = index >= events.length; });
  }

  // What stands at the top stays there, whatever comes or goes above it.
  hold() {
    const {event, index} = this.top ?? {};
    if (!event || this.store.shown[index] === event) return;
    const now = this.store.shown.indexOf(event);
    if (now >= 0) this.list.scrollTop += (now - index) * ROW;
  }

  stick() {
    const end = Math.max(this.store.shown.length * ROW - this.list.clientHeight, 0);
    if (Math.abs(this.list.scrollTop - end) < 1) return;
    this.setting = true;
    this.list.scrollTop = end;
  }

  tellCount() {
    const {received, skipped, shown} = this.store;
    const text = `${shown.length} of ${received}` + (skipped ? `, ${skipped} skipped` : "");
    if (this.count.textContent !== text) this.count.textContent = text;
    this.nothing.textContent = shown.length ? "" : received ? "Nothing passes the filters." : "Nothing was said yet.";
  }

  makeRow() {
    const parts = {time: el("span.time"), mark: el("span.mark", {"aria-hidden": "true"}),
      what: el("span.what"), text: el("span.text"), gap: el("span.gap"), who: el("span.unseen")};
    const arrow = el("span.arrow");
    parts.arrow = arrow;
    parts.mark.append(...LANES.map((lane) => el("span.rail", {"data-lane": lane})), arrow);
    const node = el("div.row", {role: "option", onclick: () => this.choose(row.event[N], true)},
      parts.gap, parts.time, parts.who, parts.mark, el("span.words", {}, parts.what, parts.text));
    const row = {node, parts, event: null};
    this.list.append(node);
    return row;
  }

  fillRow(row, event, index) {
    row.node.style.top = `${index * ROW}px`;
    const before = this.store.shown[index - 1];
    const gap = this.gap(event, before);
    const selected = this.selected === event[N];
    if (row.event === event && row.gap === gap && row.selected === selected) return;
    Object.assign(row, {event, gap, selected});
    const {parts, node} = row;
    const low = Math.min(event[FROM_LANE], event[TO_LANE]), high = Math.max(event[FROM_LANE], event[TO_LANE]);
    parts.gap.textContent = gap;
    parts.time.textContent = clock(event[T], this.live);
    parts.what.textContent = event[WHAT];
    parts.text.textContent = event[TEXT];
    parts.arrow.style.left = `${low * 20 + 10}%`;
    parts.arrow.style.width = `${(high - low) * 20}%`;
    parts.arrow.dataset.to = low === high ? "self" : event[TO_LANE] > event[FROM_LANE] ? "right" : "left";
    node.dataset.kind = event[KIND];
    node.dataset.n = event[N];
    node.classList.toggle("bad", Boolean(event[BAD]));
    node.classList.toggle("after-gap", Boolean(gap));
    node.setAttribute("aria-selected", String(selected));
    node.id = `event-${event[N]}`;
    parts.who.textContent = `${event[FROM]} to ${event[TO]}`;
    node.title = `${event[N]}: ${event[FROM]} → ${event[TO]}`;
  }

  // What is missing before an event: events that were skipped, or time.
  gap(event, before) {
    const hole = this.store.holes.get(event[N]);
    if (hole) return `${hole} skipped`;
    const pause = before ? event[T] - before[T] : 0;
    return pause >= GAP ? `+ ${duration(pause)}` : "";
  }

  choose(number, open) {
    this.selected = number;
    this.list.setAttribute("aria-activedescendant", `event-${number}`);
    if (!this.paused) this.pause(true);
    this.draw(true);
    if (open) this.open(number);
  }

  key(event) {
    const steps = {ArrowDown: 1, ArrowUp: -1, PageDown: 15, PageUp: -15, Home: -Infinity, End: Infinity};
    if (event.key === "Enter" && this.selected !== null) this.open(this.selected);
    if (!(event.key in steps) || !this.store.shown.length) return;
    event.preventDefault();
    const shown = this.store.shown;
    let at = this.selected === null ? shown.length - 1 : shown.findIndex((entry) => entry[N] === this.selected);
    at = Math.max(0, Math.min(shown.length - 1, at + steps[event.key]));
    this.choose(shown[at][N], false);
    const top = at * ROW;
    if (top < this.list.scrollTop) this.list.scrollTop = top;
    if (top + ROW > this.list.scrollTop + this.list.clientHeight) this.list.scrollTop = top + ROW - this.list.clientHeight;
  }
}

function fill(select, names) {
  const key = names.join(" ");
  if (select.dataset.key === key) return;
  select.dataset.key = key;
  const chosen = select.value;
  const first = select.options[0];
  select.replaceChildren(first, ...names.map((name) => el("option", {value: name}, name)));
  select.value = names.includes(chosen) ? chosen : "";
}
