// Commands as forms, and what became of each: what was sent, what followed, how it ended.

import {badge, clock, el, replace} from "./dom.js";
import {makeForm} from "./form.js";
import {FROM, N, T, TEXT, TO, WHAT, byTime} from "./store.js";

export const title = "Commands";
const MOST_RESULTS = 20;
const GROUPS = {service: "What the service commands", "access point": "What happens at the access point",
  faults: "What is made to fail"};
const KINDS = {done: "good", refused: "warn", unknown: "warn", interrupted: "warn", failed: "bad"};

export function make(page) {
  const parts = {forms: el("div"), values: new Map(), shown: "",
    results: el("div.results", {"aria-live": "polite"})};
  parts.stop = el("button", {type: "button", disabled: true, onclick: () => page.link.ask("interrupt")}, "Stop waiting");
  parts.busy = el("p.busy", {role: "status"});
  parts.panel = el("section.became", {"aria-label": "What became of it"}, el("div.log-head", {}, el("h3", {}, "What became of it"),
    parts.busy, parts.stop), parts.results);
  page.link.addEventListener("opened", () => refresh(parts, page));
  return parts;
}

export function layout(parts) {
  return [parts.panel, parts.forms];
}

// The forms change with commands, and with what the service is told of the radios.
export function update(parts, state, page) {
  const known = JSON.stringify([state.link.subscribed, state.radios.map(({ifname, available}) => [ifname, available])]);
  if (parts.known === known) return;
  parts.known = known;
  refresh(parts, page);
}

export async function opened(parts, page) {
  await refresh(parts, page);
}

async function refresh(parts, page) {
  try {
    const {forms} = await page.link.ask("forms");
    if (JSON.stringify(forms) === parts.shown) return;
    parts.shown = JSON.stringify(forms);
    const groups = Object.keys(GROUPS).filter((group) => forms.some((form) => form.group === group));
    replace(parts.forms, groups.map((group) => el("section", {"data-group": group}, el("h3.group", {}, GROUPS[group]),
      el("div.forms", {}, forms.filter((form) => form.group === group)
        .map((form) => makeForm(form, parts.values, (line) => run(parts, page, line)))))));
    if (!forms.length) parts.forms.replaceChildren(el("p.empty", {}, "A recording takes no commands."));
  } catch { /* asked again when the link is back */ }
}

async function run(parts, page, line) {
  if (parts.running) return;
  parts.busy.textContent = `${line} …`;
  parts.stop.disabled = false;
  setRunning(parts, true);
  try {
    const answer = await page.link.ask("command", {line}, ({text}) => { parts.busy.textContent = `${line}: ${text}`; });
    if (answer.error) throw new Error(answer.error);
    parts.results.prepend(result(answer, page));
  } catch (error) {
    parts.results.prepend(el("article.result", {}, el("p", {}, badge("bad", "not known"), ` ${line}: ${error.message}`)));
  }
  while (parts.results.children.length > MOST_RESULTS) parts.results.lastChild.remove();
  parts.busy.textContent = "";
  parts.stop.disabled = true;
  setRunning(parts, false);
  await refresh(parts, page);
}

// Buttons that have the focus keep it: they are not disabled altogether.
function setRunning(parts, running) {
  parts.running = running;
  for (const button of parts.forms.querySelectorAll("button[type=submit]")) button.setAttribute("aria-disabled", String(running));
}

function result({outcome, lines, said: events}, page) {
  const said = byTime(events ?? []), sent = said.filter((event) => event[FROM] === "service");
  return el("article.result", {"data-outcome": outcome.outcome},
    el("p", {}, badge(KINDS[outcome.outcome], outcome.outcome), " ", el("code", {}, outcome.command),
      outcome.reason ? el("span.reason", {}, `: ${outcome.reason}`) : null),
    sent.length ? el("p", {}, "Sent: ", sent.map((event) => opener(event, page))) : null,
    said.length ? el("details", {}, el("summary", {}, `What was said meanwhile: ${said.length}`),
      el("ol.said", {}, said.map((event) => el("li", {}, opener(event, page))))) : null,
    lines?.length ? el("details", {}, el("summary", {}, "What the command shows"), el("pre", {tabIndex: 0},
      lines.map((line) => line.heading ? `== ${line.heading}` : line.text).join("\n"))) : null);
}

function opener(event, page) {
  return el("button.event", {type: "button", title: event[TEXT], onclick: () => page.openMessage(event[N])},
    `${clock(event[T], page.live)} ${event[FROM]} → ${event[TO]} ${event[WHAT]}`);
}
