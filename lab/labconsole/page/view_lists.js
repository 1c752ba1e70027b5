// The WIDS mode: MAC lists that the service pushed, and what became of each.

import {badge, clock, el, show, table} from "./dom.js";

export const title = "MAC lists";
export const modes = ["wids"];

export function make() {
  return {about: el("p"), seen: el("div"), last: el("div.cards")};
}

export function layout(parts) {
  return [parts.about, parts.seen, parts.last];
}

export function update(parts, state, page) {
  const {lists} = state;
  if (!lists) return;
  show(parts.about, lists["waits-for"], () => ["This access point takes the list named ", el("code", {}, lists["waits-for"] || "–"), " and no other."]);
  show(parts.seen, JSON.stringify(lists.seen), () => table("Lists that came", ["time", "name", "white", "black", "lumd", "network manager"],
    lists.seen.toReversed().map((list) => [opener(list, page), list.name, count(list.white), count(list.black), outcome(list),
      manager(list["network-manager"])]),
    "none yet: run the command push"));
  const last = lists.seen.findLast((list) => list.outcome === "taken");
  show(parts.last, JSON.stringify(last ?? null), () => last ? [addresses("White list", last.white), addresses("Black list", last.black)] : []);
}

function opener(list, page) {
  return el("button.event", {type: "button", onclick: () => page.openMessage(list.n)}, clock(list.t, page.live));
}

function count(list) {
  return {cell: list === null ? "–" : String(list.length), class: "number"};
}

function outcome(list) {
  if (list.outcome === null) return badge("plain", "no answer");
  return badge(list.outcome === "taken" ? "good" : "warn", list.outcome);
}

function manager(said) {
  return said === null ? "–" : badge({ok: "good", asked: "plain"}[said] ?? "bad", said);
}

function addresses(name, list) {
  return el("article.card", {}, el("h3", {}, `${name} in force`), list?.length ?
    el("ul.plain", {}, list.map((address) => el("li", {}, el("code", {}, address)))) : el("p.empty", {}, "empty"));
}
