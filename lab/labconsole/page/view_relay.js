// The portal mode: what lumd passed on between the service and the portal module.

import {badge, clock, el, show, table} from "./dom.js";

export const title = "Relay";
export const modes = ["portal"];
const WAYS = {down: "▼ to the portal module", up: "▲ to the service"};

export function make() {
  return {about: el("p"), passed: el("div")};
}

export function layout(parts) {
  return [parts.about, parts.passed];
}

export function update(parts, state, page) {
  const {relay} = state;
  if (!relay) return;
  show(parts.about, JSON.stringify([relay.down, relay.up, relay.module]), () => [
    relay.module === undefined ? null : relay.module ? badge("good", "the portal module runs") : badge("warn", "the portal module is away"),
    ` ${relay.down} passed down, ${relay.up} passed up`].filter((part) => part !== null));
  show(parts.passed, JSON.stringify(relay.passed), () => table("Passed on", ["time", "way", "message"],
    relay.passed.toReversed().map((one) => [el("button.event", {type: "button", onclick: () => page.openMessage(one.n)}, clock(one.t, page.live)),
      WAYS[one.way], {cell: one.text, class: "words"}]), "nothing yet: run the commands down and up"));
}
