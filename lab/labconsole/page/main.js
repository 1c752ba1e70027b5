// The page: what is open, and what is drawn when.

import {el} from "./dom.js";
import {Link} from "./link.js";
import {Message} from "./message.js";
import {Store} from "./store.js";
import {Talk} from "./talk.js";
import * as air from "./view_air.js";
import * as ap from "./view_ap.js";
import * as commands from "./view_commands.js";
import * as fleet from "./view_fleet.js";
import * as lists from "./view_lists.js";
import * as relay from "./view_relay.js";
import * as state from "./view_state.js";

const VIEWS = {fleet, ap, air, lists, relay, state, commands};
const ALONE = "talk";  // the conversation, which has the whole width as a view of its own

const at = (id) => document.getElementById(id);
const page = {link: new Link(), store: new Store(), state: null, board: null, live: true, view: "ap",
  needsAcknowledgement: false, summaries: {}};
page.message = new Message(at("message"), page.link);
page.openMessage = (number) => page.message.open(number, page.live);
page.talk = new Talk(at("talk"), page.store, page.link, page.openMessage);
window.consolePage = page;  // for whoever looks at the page with a tool

const parts = Object.fromEntries(Object.entries(VIEWS).map(([name, view]) => [name, view.make(page)]));

// Those that have something to show in the mode of the access point that is open.
function names() {
  const views = page.board?.views ?? [];
  const mode = views[page.opened]?.mode ?? "rrm";
  return [...Object.keys(VIEWS).filter((name) => (name !== "fleet" || views.length > 1) &&
    (VIEWS[name].modes ?? [mode]).includes(mode)), ALONE];
}

function makeTabs() {
  const titles = {...Object.fromEntries(Object.entries(VIEWS).map(([name, view]) => [name, view.title])),
    [ALONE]: "Conversation"};
  at("tabs").replaceChildren(...names().map((name, index) => el("a", {href: `#${name}`, "data-view": name,
    "aria-keyshortcuts": String(index + 1)}, titles[name], el("kbd", {"aria-hidden": "true"}, String(index + 1)))));
  choose();
}

function choose() {
  const wanted = location.hash.slice(1);
  page.view = names().includes(wanted) ? wanted : names()[0];
  document.body.dataset.view = page.view;
  for (const tab of at("tabs").children) {
    if (tab.dataset.view === page.view) tab.setAttribute("aria-current", "page");
    else tab.removeAttribute("aria-current");
  }
  const view = VIEWS[page.view];
  if (view) {
    at("view-title").textContent = view.title;
    at("content").replaceChildren(...view.layout(parts[page.view]));
    view.opened?.(parts[page.view], page);
  }
  draw();
  page.talk.draw(true);
}

function draw() {
  const view = VIEWS[page.view];
  if (view && page.state) view.update(parts[page.view], page.state, page);
}

page.draw = draw;

function tellStatus() {
  const {link, state: known} = page;
  const text = !link.connected ? "No link to the lab: trying again" :
    !page.board?.views.length ? page.board?.title ?? "" :
      !known ? "loading" : known.about.recording ? `a recording of the ${known.about.mode} mode` :
        `${known.about.mode} mode, ${known.link.state}` +
          (known.link.subscribed === null ? "" : known.link.subscribed ? ", subscribed" : ", not subscribed") +
          (known.about.doing ? `. Now: ${known.about.doing}` : "");
  if (at("status").textContent !== text) at("status").textContent = text;
  at("status").dataset.good = String(Boolean(link.connected && (known?.link.connected || known?.about.recording)));
}

// Events come faster than anybody reads: what was received is counted at once, and drawn a few times a
// second.
const DRAW_PAUSE = 100;  // ms
let drawing = 0;
function drawSoon() {
  drawing ||= setTimeout(() => requestAnimationFrame(() => {
    drawing = 0;
    page.talk.draw();
  }), DRAW_PAUSE);
}

page.link.addEventListener("link", tellStatus);

page.link.addEventListener("board", ({detail}) => {
  const same = page.board?.board === detail.board && page.board?.run === detail.run;
  page.board = detail;
  at("title").textContent = detail.title;
  document.title = `${detail.title} · lumd console`;
  at("chooser").hidden = detail.views.length < 2;
  at("views").replaceChildren(...detail.views.map((view, index) => el("option", {value: String(index)}, view.name)));
  if (!detail.views.length) {
    page.state = null;
    makeTabs();
    tellStatus();
  } else if (same && page.opened !== undefined) {
    makeTabs();
    page.link.open(page.opened, page.store.last);  // after a lost link, from where it was
  } else {
    openView(0);
  }
});

export function openView(number) {
  page.state = null;
  page.opened = number;
  page.live = page.board.views[number].live;
  at("views").value = String(number);
  page.store.clear();
  page.talk.clear(page.live);
  makeTabs();
  page.link.open(number, null);
  tellStatus();
}
page.openView = openView;

page.link.addEventListener("events", ({detail}) => {
  page.store.add(detail.events);
  page.link.acknowledge(page.store.last, false);
  drawSoon();
});

page.link.addEventListener("skipped", ({detail}) => {
  page.store.skip(detail);
  drawSoon();
});

page.link.addEventListener("state", ({detail}) => {
  page.state = detail.state;
  page.talk.know(page.state.clients.map((client) => client.mac), page.state.radios.map((radio) => radio.ifname));
  tellStatus();
  draw();
  page.link.acknowledge(page.store.last ?? 0, true);
});

page.link.addEventListener("summaries", ({detail}) => {
  Object.assign(page.summaries, detail.summaries);
  if (page.view === "fleet") draw();
});

document.querySelector(".skip").addEventListener("click", (event) => {
  event.preventDefault();  // its address would be taken for that of a view
  (page.view === ALONE ? page.talk.list : at("view")).focus();
});

at("views").addEventListener("change", () => openView(Number(at("views").value)));
addEventListener("hashchange", choose);
addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.metaKey || event.altKey || /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName) ||
      at("message").open) return;
  const number = Number(event.key);
  if (number >= 1 && number <= names().length) location.hash = names()[number - 1];
  else if (event.key === "p") page.talk.pause(!page.talk.paused);
  else if (event.key === "/") { event.preventDefault(); page.talk.text.focus(); }
});
makeTabs();
