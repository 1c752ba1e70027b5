// The air: both bands as the last survey heard them, and what is otherwise since the one before.

import {badge, clock, el, show, table} from "./dom.js";
import {BANDS, bandOf, liesIn} from "./channels.js";
import {spectrum} from "./spectrum.js";

export const title = "Air";
export const modes = ["rrm"];  // the others survey nothing
const MARGIN = 14;  // px beside a drawing, as views.css has them
const ROOMY = 520;  // px that a band of several pieces takes; where there are less, each piece is a drawing

export function make(page) {
  const parts = {about: el("p"), bands: el("div"), changes: el("div"), heard: el("div")};
  addEventListener("resize", () => {
    delete parts.bands.dataset.key;
    page.draw();
  });
  return parts;
}

export function layout(parts) {
  delete parts.bands.dataset.key;  // it may have another width now
  return [parts.about, parts.bands, parts.changes, parts.heard];
}

export function update(parts, state, page) {
  const survey = state.survey;
  show(parts.about, JSON.stringify([survey?.n, survey?.t, state.timers.some(({name}) => name === "survey")]),
    () => about(survey, state, page));
  const radios = state.radios.filter((radio) => radio.up).map((radio) => radio.model ?
    {...radio, channel: radio.model.channel, bandwidth: radio.model.bandwidth, "primary-channel": radio.model.primary} : radio)
    .filter((radio) => radio.channel);
  show(parts.bands, JSON.stringify([survey, radios.map((radio) => [radio.channel, radio.bandwidth, radio["primary-channel"]])]),
    () => bands(survey, radios, new Set(state.vaps.map((vap) => vap.ssid)), parts.about.clientWidth));
  show(parts.changes, JSON.stringify(survey), () => survey ? changes(survey) : []);
  show(parts.heard, JSON.stringify(survey), () => survey ? heardTable(survey) : []);
}

function about(survey, state, page) {
  const busy = state.timers.some(({name}) => name === "survey") ? [badge("plain", "a survey is under way"), " "] : [];
  if (!survey) return [...busy, "No survey yet: run the command scan. The bands show this access point alone."];
  return [...busy, `Survey at ${clock(survey.t, page.live)}: ${survey.heard.length} networks in ${survey.passes} ` +
    `pass${survey.passes === 1 ? "" : "es"}. `,
  el("button", {type: "button", onclick: () => page.openMessage(survey.n)}, "Open the report")];
}

function bands(survey, radios, ownNames, width) {
  const heard = (survey?.heard ?? []).map((entry) => ({...entry, isNew: !survey.first}));
  const wanted = [...new Set([...radios.map((radio) => radio.band), ...heard.map((entry) => bandOf(entry.channel))])].sort();
  return wanted.map((band) => {
    const drawings = pieces(band, width).map((piece) => {
      const drawing = el("div.drawing"), inPiece = ({channel}) => liesIn(band, piece, channel);
      spectrum(drawing, {band, pieces: piece, ownNames, load: survey?.load, heard: heard.filter(inPiece), radios: radios.filter(inPiece)},
        width - MARGIN);
      return drawing;
    });
    return el("figure.band", {"data-band": band}, el("figcaption", {}, band.replace("GHz", " GHz"), legend()), drawings);
  });
}

// What each drawing of a band has of it.
function pieces(band, width) {
  const all = BANDS[band].pieces;
  return width < ROOMY ? all.map((piece) => [piece]) : [all];
}


function legend() {
  return el("span.legend", {}, el("span.key.own", {}, "this access point"), el("span.key.same", {}, "same network (solid)"),
    el("span.key.other", {}, "others (dashed)"));
}

function changes(survey) {
  if (survey.first) return [el("p.empty", {}, "This was the first survey: there is nothing to compare it with.")];
  const fresh = survey.heard.filter((entry) => entry.change === null);
  const moved = survey.heard.filter((entry) => entry.change !== null && Math.abs(entry.change) >= 3);
  return [table("Since the survey before", ["network", "channel", "what"], [
    ...fresh.map((entry) => [name(entry), String(entry.channel), badge("warn", `new, ${entry.rssi} dBm`)]),
    ...survey.gone.map((entry) => [name(entry), String(entry.channel), badge("plain", `gone, was ${entry.rssi} dBm`)]),
    ...moved.map((entry) => [name(entry), String(entry.channel), change(entry.change)])], "nothing is otherwise by 3 dB or more")];
}

function heardTable(survey) {
  return [table("Networks heard", ["channel", "width", "signal", "change", "SSID", "BSSID"], survey.heard.map((entry) => [
    {cell: String(entry.channel), class: "number"},
    `${entry.bandwidth} MHz${entry["primary-channel"] === "none" ? "" : ` ${entry["primary-channel"]}`}`,
    {cell: `${entry.rssi} dBm`, class: "number"}, survey.first ? "–" : entry.change === null ? "new" : change(entry.change),
    entry.ssid || "–", el("code", {}, entry.bssid)]), "no network was heard")];
}

function name(entry) {
  return `${entry.ssid} ${entry.bssid}`.trim();
}

function change(decibels) {
  return decibels === 0 ? "same" : `${decibels > 0 ? "▲ +" : "▼ −"}${Math.abs(decibels)} dB`;
}
