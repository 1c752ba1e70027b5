// Many access points: a tile each, the one that is opened marked.

import {badge, el} from "./dom.js";

export const title = "Fleet";

export function make(page) {
  const parts = {totals: el("p.totals", {role: "status"}), tiles: el("div.tiles"), made: new Map()};
  parts.trouble = el("input", {type: "checkbox", id: "only-trouble", onchange: () => {
    parts.changed = true;
    page.draw();
  }});
  parts.head = el("p", {}, parts.trouble, " ", el("label", {for: "only-trouble"}, "only those with trouble"));
  return parts;
}

export function layout(parts) {
  parts.changed = true;
  return [parts.totals, parts.head, parts.tiles];
}

export function update(parts, state, page) {
  if (parts.board !== page.board.board) {
    parts.board = page.board.board;
    parts.made.clear();
    parts.tiles.replaceChildren(...page.board.views.map((view, number) => makeTile(parts, view, number, page)));
  }
  for (const [number, tile] of parts.made) {
    const summary = page.summaries[number], open = page.opened === number;
    if (tile.summary === summary && tile.open === open && !parts.changed) continue;
    fill(tile, summary, open, parts.trouble.checked);
  }
  parts.changed = false;
  const all = Object.values(page.summaries);
  const sum = (name) => all.reduce((total, summary) => total + summary[name], 0);
  const text = `${page.board.views.length} access points: ${sum("connected")} connected, ` +
    (all.some(({subscribed}) => subscribed !== null) ? `${sum("subscribed")} subscribed, ` : "") +
    `${sum("clients")} clients, ${sum("events")} events, ${sum("complaints")} complaints, ${sum("faults")} faults`;
  if (parts.totals.textContent !== text) parts.totals.textContent = text;
}

function makeTile(parts, view, number, page) {
  const tile = {state: el("span"), radios: el("span.radios"), counts: el("span.counts")};
  tile.node = el("button.tile", {type: "button", "data-view-number": String(number), onclick: () => {
    page.openView(number);
    location.hash = "ap";
  }}, el("strong", {}, view.name), tile.state, tile.radios, tile.counts);
  parts.made.set(number, tile);
  return tile.node;
}

function fill(tile, summary, open, onlyTrouble) {
  Object.assign(tile, {summary, open});
  if (open) tile.node.setAttribute("aria-current", "true");
  else tile.node.removeAttribute("aria-current");
  if (!summary) return;
  const trouble = !summary.connected || summary.subscribed === false || summary.complaints || summary.faults;
  tile.node.hidden = onlyTrouble && !trouble;
  tile.state.replaceChildren(!summary.connected ? badge("bad", summary.link) :
    summary.subscribed === null ? badge("good", summary.link) :
      summary.subscribed ? badge("good", "subscribed") : badge("warn", "not subscribed"));
  tile.radios.textContent = summary.radios;
  tile.counts.textContent = `${summary.clients} clients, ${summary.events} events` +
    (summary.complaints ? `, ${summary.complaints} complaints` : "") + (summary.faults ? `, ${summary.faults} faults` : "");
}
