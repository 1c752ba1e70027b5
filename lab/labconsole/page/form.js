// A form of one command, and the line that it stands for.

import {el} from "./dom.js";

let count = 0;

// `run(line)` carries it out. What was typed before is kept in `values`.
export function makeForm(form, values, run) {
  const controls = form.fields.map((field) => ({field, id: `field-${++count}`}));
  const node = el("form.command", {"data-form": form.name, onsubmit: (event) => {
    event.preventDefault();
    run(lineOf(form, controls));
  }});
  for (const control of controls) makeControl(control, values);
  const follow = () => controls.filter(({field}) => field.by).forEach((control) =>
    bound(control, controls.find(({field}) => field.name === control.field.by).input.value, values));
  for (const control of controls) control.input.addEventListener("change", () => { remember(control, values); follow(); });
  follow();
  node.append(el("h4", {}, form.name), el("p.help", {}, form.help), ...controls.map(({row}) => row),
    el("button.primary", {type: "submit"}, "Run"));
  return node;
}

function makeControl(control, values) {
  const {field, id} = control;
  const shared = {id, name: field.name, "aria-describedby": field.help ? `${id}-help` : null, required: !field.optional};
  control.input = field.kind === "choice" ? el("select", shared) : field.kind === "json" ? el("textarea", {...shared, rows: "9", spellcheck: "false"}) :
    el("input", {...shared, type: field.kind === "number" ? "number" : "text", autocomplete: "off"});
  if (!field.by) bound(control, null, values);
  control.limits = el("span.unit", {});
  control.row = el("div.field", {}, el("label", {for: id}, field.name), el("span.entry", {}, control.input, control.limits),
    field.help ? el("span.help", {id: `${id}-help`}, field.help) : null);
  if (field.kind === "json") control.row.prepend(examples(control, values));
  tellLimits(control, field);
}

// Choices, limits and value; of a field that depends on another one by that one's value.
function bound(control, other, values) {
  const {field, input} = control;
  const given = field.by ? field.each[other] ?? {} : field;
  if (given.choices) {
    const labels = given.labels ?? given.choices;
    input.replaceChildren(...(field.optional && !given.choices.includes("") ? [el("option", {value: ""}, "–")] : []),
      ...given.choices.map((choice, index) => el("option", {value: String(choice)}, String(labels[index]))));
  }
  if (field.kind === "number") {
    input.min = given.lowest ?? "";
    input.max = given.highest ?? "";
  }
  const kept = values.get(key(control, other));
  const fallback = given.default !== undefined && !(field.equals && field.kind !== "choice") ? String(given.default) : "";
  if (kept !== undefined) input.value = kept;
  else if (fallback || !given.choices) input.value = fallback;
  control.other = other;
  if (control.limits) tellLimits(control, given);
}

function key(control, other) {
  return `${control.input.form?.dataset.form ?? ""} ${control.field.name} ${other ?? ""}`;
}

function remember(control, values) {
  values.set(key(control, control.other), control.input.value);
}

function tellLimits(control, given) {
  const {lowest, highest} = given;
  const range = lowest !== undefined && highest !== undefined ? `${lowest} to ${highest}` :
    lowest !== undefined ? `from ${lowest}` : "";
  control.limits.textContent = [range, control.field.unit].filter(Boolean).join(" ");
}

// Messages that can be taken as a beginning, with what their members are.
function examples(control) {
  const about = el("dl", {});
  const chooser = el("select", {"aria-label": "Example", onchange: () => take()},
    control.field.examples.map(({name, title}, index) => el("option", {value: String(index)}, `${name}: ${title}`)));
  const take = () => {
    const example = control.field.examples[Number(chooser.value)];
    control.input.value = JSON.stringify(example.text, null, 1);
    about.replaceChildren(...example.about.map(([name, said]) => el("div", {}, el("dt", {}, el("code", {}, name)), el("dd", {}, said))));
  };
  take();
  return el("div.examples", {}, el("span", {}, "Begin with "), chooser,
    el("div.members-of", {tabIndex: 0, role: "region", "aria-label": "Members of the message"}, about));
}

function lineOf(form, controls) {
  const words = controls.map(({field, input}) => {
    const value = input.value.trim();
    if (field.kind === "json") return value.replace(/\s*\n\s*/g, " ");
    if (!value || field.before && value === String(field.default)) return "";
    if (field.equals) return quoted(`${field.name}=${value}`);
    return (field.before ? `${field.before} ` : "") + (field.words ? value : value.startsWith("--") ? value : quoted(value));
  });
  return [form.line, ...words].filter(Boolean).join(" ");
}

// As a shell quotes, which is how the prompt splits words.
function quoted(text) {
  return /^[\w.,:=/+@-]+$/.test(text) ? text : `'${text.replaceAll("'", "'\"'\"'")}'`;
}
