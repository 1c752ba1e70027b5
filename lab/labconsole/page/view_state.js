// The subscription, the link, timers that run, daemons, faults, and what lumd logged.

import {badge, duration, el, show} from "./dom.js";

export const title = "State";
const BAD_LINE = /\b(err|error|crit|alert|emerg|warn|warning)\b/i;

export function make(page) {
  const parts = {link: el("div.cards.columns"), log: el("div"), timers: el("div.timers")};
  parts.lines = el("div.log", {tabIndex: 0, role: "log", "aria-label": "lumd's log"});
  parts.logText = el("input", {type: "search", placeholder: "filter", "aria-label": "Filter the log",
    oninput: () => page.draw()});
  parts.timerCard = el("article.card", {}, el("h3", {}, "Timers"), parts.timers);
  parts.log.append(el("div.log-head", {}, el("h3", {}, "lumd's log"), parts.logText), parts.lines);
  return parts;
}

export function layout(parts) {
  return [parts.link, parts.log];
}

export function update(parts, state, page) {
  const {timers, log, link, daemons, faults, complaints, about} = state;
  show(parts.link, JSON.stringify([link, daemons, faults, complaints, about]), () => [
    linkCard(link), aboutCard(about, link), parts.timerCard, daemonCard(daemons), faultCard(faults, complaints)]);
  updateTimers(parts, timers, page);
  const wanted = parts.logText.value.trim().toLowerCase();
  show(parts.lines, JSON.stringify([log.at(-1), log.length, wanted]), () => log
    .filter((line) => line.toLowerCase().includes(wanted))
    .map((line) => el(BAD_LINE.test(line) ? "div.bad" : "div", {}, line)));
  if (parts.lines.matches(":not(:focus):not(:hover)")) parts.lines.scrollTop = parts.lines.scrollHeight;
}

function facts(rows) {
  return el("dl.facts", {}, rows.filter(([, value]) => value !== "" && value !== undefined)
    .map(([name, value]) => el("div", {}, el("dt", {}, name), el("dd", {}, value))));
}

function linkCard(link) {
  return el("article.card", {}, el("h3", {}, "Link and subscription"), facts([
    ["Link", link.connected ? badge("good", link.state) : badge("bad", link.state)],
    ["Subscription", link.subscribed === null ? "" : link.subscribed ? badge("good", "subscribed") : badge("warn", "not subscribed")],
    ["Connections so far", String(link.connections)], ["lumd", link.lumd], ["Domain", link.domain]]));
}

function aboutCard(about, link) {
  return el("article.card", {}, el("h3", {}, "Access point"), facts([["Scenario", about.scenario],
    ["", about.description], ["Mode", about.mode], ["Clock", `${about.speed} times real time`],
    ["Address", link.mac], ...Object.entries(link.factory).filter(([name]) => name !== "mac")]));
}

function daemonCard(daemons) {
  const known = Object.entries(daemons);
  return el("article.card", {}, el("h3", {}, "Daemons beside lumd"), el("p.badges", {}, known.length ?
    known.map(([name, runs]) => badge(runs ? "good" : name === "guardd" ? "plain" : "warn", runs ? name : `${name} is away`)) : "not known"));
}

function faultCard(faults, complaints) {
  return el("article.card", {}, el("h3", {}, "Faults and complaints"),
    el("p", {}, complaints ? badge("bad", `${complaints} messages not as the schemas want them`) :
      badge("good", "all messages as the schemas want them")),
    faults.length ? el("ul.plain", {}, faults.map((fault) => el("li", {}, badge("warn", fault)))) :
      el("p", {}, "Nothing is made to fail."));
}

// In their own time: the page's clock is the lab's, as both are on this machine.
function updateTimers(parts, timers, page) {
  const now = Date.now() / 1000;
  show(parts.timers, JSON.stringify(timers), () => timers.length ? timers.map((timer) => {
    const fill = el("span.fill"), value = el("span.value");
    const row = el("div.timer", {}, el("span.name", {}, timer.name), el("span.bar", {}, fill), value,
      el("span.meaning", {}, timer.meaning));
    row.timer = timer;
    return row;
  }) : [el("p", {}, page.live ? "None runs." : "Not in a recording.")]);
  for (const row of parts.timers.querySelectorAll(".timer")) {
    const {since, least, most} = row.timer;
    const passed = Math.max(now - since, 0);
    row.querySelector(".fill").style.width = `${Math.min(passed / most, 1) * 100}%`;
    const range = least === most ? duration(most) : `${duration(least)} to ${duration(most)}`;
    row.querySelector(".value").textContent = `${duration(Math.min(passed, most))} of ${range}`;
  }
}
