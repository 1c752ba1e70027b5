// The websocket: takes up a lost one again, acknowledges what the page has, asks.

const PAUSES = [500, 1000, 2000, 4000];  // ms before another attempt

export class Link extends EventTarget {
  constructor() {
    super();
    this.board = null;   // what the server last told of the views there are
    this.view = null;    // the number of the one that is open
    this.connected = false;
    this.waiting = new Map();  // requests by their number
    this.number = 0;
    this.failures = 0;
    // What is asked for again after a lost link: board, view and the last event that is there.
    this.last = null;
    this.connect();
  }

  connect() {
    const place = new URL("socket", location.href);
    place.protocol = "ws:";
    this.socket = new WebSocket(place);
    this.socket.addEventListener("open", () => { this.failures = 0; this.connected = true; this.tell("link"); });
    this.socket.addEventListener("message", (message) => this.take(JSON.parse(message.data)));
    this.socket.addEventListener("close", () => this.lost());
  }

  lost() {
    this.connected = false;
    for (const {refuse} of this.waiting.values()) refuse(new Error("the link to the lab was lost"));
    this.waiting.clear();
    this.tell("link");
    const pause = PAUSES[Math.min(this.failures++, PAUSES.length - 1)];
    setTimeout(() => this.connect(), pause);
  }

  take(message) {
    if (message.type === "answer") {
      const asked = this.waiting.get(message.id);
      this.waiting.delete(message.id);
      asked?.done(message);
    } else if (message.type === "progress") {
      this.waiting.get(message.id)?.progress?.(message);
    } else {
      if (message.type === "board") this.board = message;
      this.tell(message.type, message);
    }
  }

  tell(name, detail = null) {
    this.dispatchEvent(new CustomEvent(name, {detail}));
  }

  send(message) {
    if (this.socket.readyState === WebSocket.OPEN) this.socket.send(JSON.stringify(message));
  }

  open(view, since) {
    this.view = view;
    this.send({open: view, board: this.board.board, since});
  }

  acknowledge(number, state) {
    this.send({ack: number, state});
  }

  // The answer to a request; `progress` is told what happens meanwhile.
  ask(what, given = {}, progress = null) {
    return new Promise((done, refuse) => {
      if (!this.connected) {
        refuse(new Error("there is no link to the lab"));
        return;
      }
      const id = ++this.number;
      this.waiting.set(id, {done, refuse, progress});
      this.send({ask: what, id, ...given});
    });
  }
}
