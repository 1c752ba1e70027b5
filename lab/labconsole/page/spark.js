// A client's signal over time as a small line.

const WIDTH = 110, HEIGHT = 22, WEAKEST = -95, STRONGEST = -35;  // px, dBm
const SVG = "http://www.w3.org/2000/svg";

export function spark(readings) {
  const svg = document.createElementNS(SVG, "svg");
  svg.setAttribute("class", "spark");
  svg.setAttribute("viewBox", `0 0 ${WIDTH} ${HEIGHT}`);
  svg.setAttribute("role", "img");
  svg.setAttribute("aria-label", readings.length ?
    `signal from ${readings[0]} to ${readings.at(-1)} dBm, weakest ${Math.min(...readings)}` : "no signal yet");
  if (!readings.length) return svg;
  const {d3} = window;
  const x = d3.scale.linear().domain([0, Math.max(readings.length - 1, 30)]).range([2, WIDTH - 4]);
  const y = d3.scale.linear().domain([WEAKEST, STRONGEST]).range([HEIGHT - 2, 2]).clamp(true);
  const points = readings.map((reading, index) => [x(index), y(reading)]);
  const line = document.createElementNS(SVG, "path");
  line.setAttribute("d", d3.svg.line()(points) ?? "");
  const dot = document.createElementNS(SVG, "circle");
  dot.setAttribute("cx", points.at(-1)[0]);
  dot.setAttribute("cy", points.at(-1)[1]);
  dot.setAttribute("r", 2.2);
  svg.append(line, dot);
  return svg;
}
