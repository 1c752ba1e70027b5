// A band as a drawing: each network a shape over its channels, as high as it was heard.

import {BANDS, centre, liesIn, span} from "./channels.js";

const WEAKEST = -97, STRONGEST = -35;  // dBm
const HEIGHT = 250, LEFT = 44, RIGHT = 8, TOP = 30, BOTTOM = 56;  // px
const SLOPE = 0.14;  // of the width that a shape takes to rise
const BREAK = 20;  // px between two pieces of a band
const OWN_LABEL = 150;  // px of the text above a radio's channels
const LARGEST = 10;  // px from the middle of a figure below the axis to its rim
const APART = {"2.4GHz": 5, "5GHz": 20, "6GHz": 20};  // MHz from a channel to the next
const TICK = 20;  // px of a channel's number below the axis, at least
const LETTER = 6.7, LINE = 12;  // px of a name at most

// `given`: {band, pieces of it (see channels.js), heard, radios, ownNames: SSIDs of this access point, load: percent
// by channel}
export function spectrum(node, given, width) {
  const {d3} = window;
  const x = scale(given.pieces, width);
  const y = d3.scale.linear().domain([WEAKEST, STRONGEST]).range([HEIGHT - BOTTOM, TOP]).clamp(true);
  const svg = d3.select(node).append("svg").attr("class", "spectrum").attr("role", "img")
    .attr("viewBox", `0 0 ${width} ${HEIGHT}`).attr("aria-label", words(given));
  drawAxes(svg, x, y, given, width);
  drawBreaks(svg, x, given.pieces);
  drawRadios(svg, x, given);
  drawHeard(svg, x, y, given);
  drawLoad(svg, x, given);
}

// Each piece as wide as it is in MHz, BREAK px between them.
function scale(pieces, width) {
  const whole = pieces.reduce((sum, [from, to]) => sum + to - from, 0);
  const step = (width - LEFT - RIGHT - BREAK * (pieces.length - 1)) / whole;
  let at = LEFT;
  const places = pieces.flatMap(([from, to], index) => {
    const left = at + (index ? BREAK : 0);
    at = left + (to - from) * step;
    return [left, at];
  });
  return window.d3.scale.linear().domain(pieces.flat()).range(places);
}

function words({band, heard, radios}) {
  const own = radios.map((radio) => `${radio.ifname} on channel ${radio.channel}`).join(", ") || "no radio";
  const strongest = heard.length ? `, the strongest at ${Math.max(...heard.map((entry) => entry.rssi))} dBm` : "";
  return `${band}: ${heard.length} networks heard${strongest}; ${own}. The table below has all of them.`;
}

function drawAxes(svg, x, y, {band, pieces}, width) {
  const floor = HEIGHT - BOTTOM;
  for (const level of [-90, -80, -70, -60, -50, -40]) {
    svg.append("line").attr("class", "grid").attr("x1", LEFT).attr("x2", width - RIGHT).attr("y1", y(level)).attr("y2", y(level));
    svg.append("text").attr("class", "tick").attr("x", LEFT - 6).attr("y", y(level) + 4).attr("text-anchor", "end").text(level);
  }
  svg.append("text").attr("class", "tick").attr("x", LEFT - 6).attr("y", TOP + 4).attr("text-anchor", "end").text("dBm");
  svg.append("line").attr("class", "floor").attr("x1", LEFT).attr("x2", width - RIGHT).attr("y1", floor).attr("y2", floor);
  for (const channel of ticks(band, pieces, x)) {
    svg.append("text").attr("class", "tick").attr("x", x(centre(band, channel))).attr("y", floor + 15)
      .attr("text-anchor", "middle").text(channel);
  }
}

// Those that have room.
function ticks(band, pieces, x) {
  let last = -Infinity;
  return BANDS[band].ticks.filter((channel) => {
    const at = x(centre(band, channel));
    if (!liesIn(band, pieces, channel) || at - last < TICK) return false;
    last = at;
    return true;
  });
}

function drawBreaks(svg, x, pieces) {
  for (const [[, to], [from]] of window.d3.pairs(pieces)) {
    svg.append("rect").attr("class", "break").attr("x", x(to)).attr("y", HEIGHT - BOTTOM - 3).attr("width", x(from) - x(to)).attr("height", 6);
    svg.append("text").attr("class", "tick").attr("x", (x(to) + x(from)) / 2).attr("y", HEIGHT - BOTTOM + 4).attr("text-anchor", "middle").text("⋯");
  }
}

function drawRadios(svg, x, {radios, band}) {
  for (const radio of radios) {
    const {from, to} = span(band, radio.channel, radio.bandwidth, radio["primary-channel"]);
    const group = svg.append("g").attr("class", "own").attr("data-radio", radio.ifname);
    group.append("rect").attr("x", x(from)).attr("y", TOP - 8).attr("width", x(to) - x(from)).attr("height", HEIGHT - BOTTOM - TOP + 8);
    const [least, most] = [LEFT + OWN_LABEL / 2, x.range().at(-1) - OWN_LABEL / 2];
    group.append("text").attr("x", Math.max(least, Math.min((x(from) + x(to)) / 2, most))).attr("y", TOP - 13)
      .attr("text-anchor", "middle").text(`▼ ${radio.ifname}: ${radio.channel}, ${radio.bandwidth} MHz`);
  }
}

function drawHeard(svg, x, y, {heard, band, ownNames}) {
  const floor = HEIGHT - BOTTOM;
  const names = [];
  for (const entry of [...heard].sort((one, other) => other.rssi - one.rssi)) {
    const {from, to} = span(band, entry.channel, entry.bandwidth, entry["primary-channel"]);
    const rise = (to - from) * SLOPE, top = y(entry.rssi);
    const points = [[x(from), floor], [x(from + rise), top], [x(to - rise), top], [x(to), floor]];
    const own = ownNames.has(entry.ssid);
    svg.append("path").attr("class", `heard${own ? " same" : ""}${entry.change === null && entry.isNew ? " new" : ""}`)
      .attr("data-bssid", entry.bssid).attr("d", window.d3.svg.line()(points))
      .append("title").text(`${entry.ssid || entry.bssid}, channel ${entry.channel}, ${entry.bandwidth} MHz, ${entry.rssi} dBm`);
    if (entry.ssid) names.push({text: entry.ssid, own, left: x(from), right: x(to), top});
  }
  drawNames(svg, names, x.range().at(-1));
}

// The strongest first; a name that has no room at its shape is in the table alone.
function drawNames(svg, names, end) {
  const taken = [];
  for (const {text, own, left, right, top} of names) {
    const half = text.length * LETTER / 2;
    const places = [(left + right) / 2, left + half, right - half]
      .map((at) => Math.max(LEFT + half, Math.min(at, end - half)));
    const bottom = Math.min(top - 4, HEIGHT - BOTTOM - 4);
    const at = places.find((place) => taken.every((other) => Math.abs(other.at - place) >= other.half + half ||
      Math.abs(other.bottom - bottom) >= LINE));
    if (at === undefined) continue;
    taken.push({at, half, bottom});
    svg.append("text").attr("class", `name${own ? " same" : ""}`).attr("x", at).attr("y", bottom).attr("text-anchor", "middle").text(text);
  }
}

// Below the axis: how busy each channel was in percent, or where nobody measures that, how many were heard there.
function drawLoad(svg, x, {heard, band, pieces, load}) {
  const counts = new Map(), from = pieces[0][0];
  for (const entry of heard) counts.set(entry.channel, (counts.get(entry.channel) ?? 0) + 1);
  const figures = load ? Object.entries(load).map(([channel, percent]) => [Number(channel), percent])
    .filter(([channel]) => liesIn(band, pieces, channel)) : [...counts];
  const floor = HEIGHT - 14, radius = Math.min(LARGEST, (x(from + APART[band]) - x(from)) / 2);
  svg.append("text").attr("class", "tick").attr("x", 0).attr("y", floor).text(load ? "load %" : "heard");
  for (const [channel, figure] of figures) {
    svg.append("circle").attr("class", "load").attr("cx", x(centre(band, channel))).attr("cy", floor - 4).attr("r", radius);
    svg.append("text").attr("class", "load").attr("data-channel", channel).attr("x", x(centre(band, channel))).attr("y", floor).attr("text-anchor", "middle").text(figure);
  }
}
