// Every text that can be seen and its contrast with what lies below it (WCAG 2.1, 1.4.3), and every
// control without a name (4.1.2), name that is given twice, and heading that leaves a level out.
const parse = (color) => {
  const canvas = parse.canvas ??= Object.assign(document.createElement("canvas"), {width: 1, height: 1});
  const pen = parse.pen ??= canvas.getContext("2d", {willReadFrequently: true});
  pen.clearRect(0, 0, 1, 1);
  pen.fillStyle = color;
  pen.fillRect(0, 0, 1, 1);
  const [r, g, b, a] = pen.getImageData(0, 0, 1, 1).data;
  return [r, g, b, a / 255];
};
const over = ([r, g, b, a], [x, y, z]) => [r * a + x * (1 - a), g * a + y * (1 - a), b * a + z * (1 - a), 1];
const light = ([r, g, b]) => [r, g, b].map((part) => part / 255)
  .map((part) => part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4)
  .reduce((sum, part, index) => sum + part * [0.2126, 0.7152, 0.0722][index], 0);
const ratio = (one, other) => {
  const [high, low] = [light(one), light(other)].sort((a, b) => b - a);
  return (high + 0.05) / (low + 0.05);
};
const ground = (node) => {
  const layers = [];
  for (let at = node; at; at = at.parentElement) layers.push(parse(getComputedStyle(at).backgroundColor));
  return layers.reverse().reduce((below, layer) => over(layer, below), [255, 255, 255, 1]);
};
const found = [];
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
let texts = 0;
for (let text = walker.nextNode(); text; text = walker.nextNode()) {
  const node = text.parentElement;
  if (!text.data.trim() || !node.checkVisibility() || node.closest("noscript, .skip, title")) continue;
  texts++;
  const style = getComputedStyle(node);
  const color = parse(node.closest("svg") ? style.fill : style.color);
  const below = ground(node.closest("svg") ?? node);
  const size = parseFloat(style.fontSize), large = size >= 24 || size >= 18.66 && Number(style.fontWeight) >= 700;
  const value = ratio(over(color, below), below);
  if (value < (large ? 3 : 4.5)) found.push(`contrast ${value.toFixed(2)}: ${text.data.trim().slice(0, 40)}`);
}
const name = (node) => node.getAttribute("aria-label") || node.labels?.[0]?.innerText.trim() ||
  (node.matches("button, a, summary") && node.innerText.trim()) || "";
for (const node of document.querySelectorAll("a, button, input, select, textarea, summary, [role=meter], svg[role=img]")) {
  if (node.checkVisibility() && !name(node)) found.push(`no name: ${node.outerHTML.slice(0, 80)}`);
}
const ids = [...document.querySelectorAll("[id]")].map((node) => node.id);
for (const id of new Set(ids.filter((id, index) => ids.indexOf(id) !== index))) found.push(`twice: #${id}`);
let level = 0;
for (const node of document.querySelectorAll("h1, h2, h3, h4, h5, h6")) {
  if (!node.checkVisibility()) continue;
  const own = Number(node.tagName[1]);
  if (own > level + 1) found.push(`heading ${own} after ${level}: ${node.innerText}`);
  level = own;
}
return {texts, found};
