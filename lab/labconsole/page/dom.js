// The few things that every view needs to make elements.

// An element: el("td.number", {title: "..."}, child, ...). Properties that begin with "on" are
// listeners; null and undefined children are left out.
export function el(what, given = {}, ...children) {
  const [name, ...classes] = what.split(".");
  const node = document.createElement(name);
  if (classes.length) node.className = classes.join(" ");
  for (const [key, value] of Object.entries(given)) {
    if (value === null || value === undefined || value === false) continue;
    if (key.startsWith("on")) node.addEventListener(key.slice(2), value);
    else if (key in node && typeof value !== "string") node[key] = value;
    else node.setAttribute(key, value === true ? "" : value);
  }
  node.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return node;
}

// A table of rows; a cell is a text, a node, or {cell, class}. `caption` is read out and shown. Where there
// is no room for columns each row is a card, and each cell has its head before it.
export function table(caption, heads, rows, empty = "none") {
  const body = rows.length ? rows.map((row) => el("tr", {}, row.map((given, index) => cell(given, heads[index]))))
    : [el("tr", {}, el("td.empty", {colSpan: heads.length}, empty))];
  return el("div.scroll", {tabIndex: 0, role: "region", "aria-label": caption},
    el("table", {}, el("caption", {}, caption),
      el("thead", {}, el("tr", {}, heads.map((head, index) =>
        el("th", {scope: "col", class: rows[0]?.[index]?.class === "number" ? "number" : null}, head)))),
      el("tbody", {}, body)));
}

function cell(given, head) {
  const rich = given !== null && typeof given === "object" && !(given instanceof Node);
  return el("td", {"data-head": head, class: rich ? given.class : null}, rich ? given.cell : given ?? "–");
}

export function clock(seconds, live = true) {
  if (!live) return `${seconds.toFixed(3)} s`;
  const date = new Date(Math.round(seconds * 1000));
  const pad = (number, width = 2) => String(number).padStart(width, "0");
  return `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}` +
    `.${pad(date.getMilliseconds(), 3)}`;
}

export function duration(seconds) {
  return seconds < 1 ? `${Math.round(seconds * 1000)} ms`
    : seconds < 100 ? `${seconds.toFixed(1)} s` : `${Math.round(seconds / 60)} min`;
}

// A word with its sign: never told by colour alone.
export function badge(kind, text) {
  const signs = {good: "✓", bad: "✗", warn: "!", plain: "•"};
  return el(`span.badge.${kind}`, {}, el("span", {"aria-hidden": "true"}, signs[kind]), ` ${text}`);
}

// Replaces what is in a node only when it has changed, so that the selection stays.
export function show(node, key, make) {
  if (node.dataset.key === key) return;
  node.dataset.key = key;
  replace(node, [make()].flat());
}

// The focus goes to what stands where it was: the one of the same name, or else at the same place.
export function replace(node, children) {
  const held = node.contains(document.activeElement) ? document.activeElement : null;
  const name = held && nameOf(held), place = held && focusable(node).indexOf(held);
  node.replaceChildren(...children);
  if (!held) return;
  const now = focusable(node);
  (now.find((one) => nameOf(one) === name) ?? now[Math.min(place, now.length - 1)])?.focus({preventScroll: true});
}

function focusable(node) {
  return [...node.querySelectorAll("a[href], button, input, select, textarea, [tabindex='0']")];
}

function nameOf(node) {
  return [node.tagName, node.closest("form")?.dataset.form, node.getAttribute("aria-label") ?? node.name, node.tagName === "BUTTON" && node.textContent].join(" ");
}
