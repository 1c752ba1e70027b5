// The access point: radios against their limits, VAPs, clients and where they went.

import {badge, clock, el, show, table} from "./dom.js";
import {spark} from "./spark.js";

export const title = "Access point";

export function make() {
  return {radios: el("div.cards"), vaps: el("div"), clients: el("div"), roams: el("div")};
}

export function layout(parts) {
  return [parts.radios, parts.vaps, parts.clients, parts.roams];
}

export function update(parts, state, page) {
  show(parts.radios, JSON.stringify(state.radios), () => state.radios.length ? state.radios.map(radio) :
    [el("p.empty", {}, state.link.subscribed === null ? "The service is told of no radio in this mode." :
      "The service was told of no radio yet.")]);
  show(parts.vaps, JSON.stringify(state.vaps), () => table("VAPs",
    ["VAP", "SSID", "BSSID", "security", "state", "802.11k", "802.11r", "clients"],
    state.vaps.map((vap) => [vap.ifname, vap.ssid, mono(vap.mac), vap.security, vap.up === undefined ? "–" :
      vap.up ? badge("good", "up") : badge("warn", "down"), yes(vap["80211k"]), yes(vap["80211r"]),
    {cell: String(vap.clients ?? "–"), class: "number"}])));
  show(parts.clients, JSON.stringify(state.clients), () => table("Clients",
    ["client", "on", "SSID", "signal", "two minutes", "known", "802.11v"],
    state.clients.map((client) => [mono(client.mac), client.vap ?? client.radio, client.ssid,
      {cell: `${client.rssi} dBm`, class: "number"}, spark(client.signal ?? []),
      client.known === undefined || client.known === null ? "–" : client.known ? badge("good", "yes") : badge("warn", "no"),
      {cell: manners(client), class: "words"}]), "nobody is associated"));
  show(parts.roams, JSON.stringify(state.roams), () => table("Clients that roamed",
    ["time", "client", "from", "to"],
    state.roams.toReversed().map((roam) => [clock(roam.t, page.live), mono(roam.mac),
      `${roam.from ?? "?"} on wlan${roam.radio}`, mono(target(roam.to, state))]), "nobody yet"));
}

function radio(radio) {
  const told = radio.channel !== undefined;
  return el("article.card.radio", {"data-radio": radio.ifname},
    el("h3", {}, radio.ifname, " ", el("small", {}, `${radio.band} ${radio.driver ?? ""}`)),
    el("p.badges", {}, radio.up ? badge("good", "up") : badge("warn", "down"),
      radio.scanning ? badge("plain", "surveys") : null,
      (radio.locked ?? []).map((name) => badge("warn", `locked for ${name}`))),
    told ? el("dl", {}, pair("Channel", `${radio.channel}`, "big"), pair("Width", width(radio)),
      pair("Available", (radio.available ?? []).join(" ") || "none")) : untold(radio),
    told ? meter("Power", radio.power, radio["power-min"], radio["power-max"]) : null,
    told ? meter("EIRP", radio.eirp, radio["eirp-min"], radio["eirp-max"]) : null,
    radio.model && told && radio.up && (radio.model.channel !== radio.channel || radio.model.power !== radio.power) ?
      el("p.differs", {}, badge("warn", `the radio is on channel ${radio.model.channel}, ${radio.model.power} dBm: ` +
        "the service was not told yet")) : null);
}

// What the radio itself has, where the service was told nothing.
function untold({model}) {
  return el("div", {}, model ? el("dl", {}, pair("Channel", String(model.channel ?? "–"), "big"),
    pair("Width", model.bandwidth ? `${model.bandwidth} MHz` : "–"), pair("Power", model.power === null ? "–" : `${model.power} dBm`)) : null,
  el("p", {}, "not told to the service"));
}

function width(radio) {
  const side = radio["primary-channel"];
  return `${radio.bandwidth} MHz${side && side !== "none" ? `, primary ${side}` : ""}`;
}

function pair(name, value, kind = "") {
  return el("div", {class: kind}, el("dt", {}, name), el("dd", {}, value));
}

function meter(name, value, least, most) {
  const share = Math.max(0, Math.min(1, (value - least) / (most - least || 1)));
  const fill = el("span.fill");
  fill.style.width = `${share * 100}%`;
  return el("div.limits", {}, el("span.name", {}, name), el("span.bar", {role: "meter", "aria-label": name,
    "aria-valuenow": String(value), "aria-valuemin": String(least), "aria-valuemax": String(most),
    "aria-valuetext": `${value} dBm of ${least} to ${most}`}, fill),
  el("span.value", {}, `${value} dBm (${least} to ${most})`));
}

function manners(client) {
  if (client["80211v"] === undefined || client["80211v"] === null) return "–";
  if (!client["80211v"]) return "no";
  if (!client.roam) return "yes";
  return client.asked ? "was asked to move" : `would ${client.roam}`;
}

function target(bssid, state) {
  const own = state.vaps.find((vap) => vap.mac === bssid);
  const other = state.survey?.heard.find((entry) => entry.bssid === bssid);
  return own ? `${own.ifname} (${own.ssid})` : other ? `${bssid} (${other.ssid}, channel ${other.channel})` : bssid;
}

function yes(value) {
  return value === undefined ? "–" : value ? "yes" : "no";
}

function mono(text) {
  return el("code", {}, text ?? "–");
}
