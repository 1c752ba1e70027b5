// One message as a whole, with what its schema says.

import {clock, el} from "./dom.js";

export class Message {
  constructor(dialog, link) {
    Object.assign(this, {dialog, link});
    dialog.addEventListener("click", (event) => { if (event.target === dialog) dialog.close(); });
  }

  async open(number, live) {
    this.show(el("p", {}, "…"), `Event ${number}`);
    try {
      const {event, error} = await this.link.ask("event", {number});
      if (error) this.show(el("p", {}, error), `Event ${number}`);
      else this.show(content(event, live), `${event.from} → ${event.to}: ${event.what}`);
    } catch (error) {
      this.show(el("p", {}, error.message), `Event ${number}`);
    }
  }

  show(body, title) {
    this.dialog.replaceChildren(
      el("div.dialog-head", {}, el("h2", {id: "message-title"}, title),
        el("button", {type: "button", onclick: () => this.dialog.close()}, "Close")),
      el("div.dialog-body", {tabIndex: 0, role: "region", "aria-label": "Message"}, body));
    if (!this.dialog.open) this.dialog.showModal();
  }
}

function content(event, live) {
  const about = event.about.map(([name, text]) => el("p.about", {}, name ? el("strong", {}, `${name}: `) : null, text));
  return el("div", {},
    el("p.where", {}, `Event ${event.n}, ${clock(event.t, live)}`),
    event.title ? el("p.schema-title", {}, event.title) : el("p.about", {}, "There is no schema for it."),
    about,
    el("table.members", {}, el("thead", {}, el("tr", {},
      ["member", "value", "what it is"].map((head) => el("th", {scope: "col"}, head)))),
    el("tbody", {}, event.rows.map(row))),
    event["left-out"] ? el("p", {}, `and ${event["left-out"]} more members`) : null);
}

function row([depth, name, value, said]) {
  const member = el("th", {scope: "row"}, name || "message");
  member.style.paddingInlineStart = `${depth * 1.1 + 0.4}em`;
  return el("tr", {}, member, el("td", {}, el("code", {}, value)), el("td.said", {}, said));
}
