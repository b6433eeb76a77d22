// What happens at the gateway and its masters, as it happens.
//
// `link` is told by events: "change" when the gateway or a master comes or
// goes, "record" (detail: { change, record }) for each record that is added,
// changed or gone, and "reset" when events may have been missed and all that
// is known has to be fetched anew.

import { address } from "./api.js";

const PATIENCE = 3000; // a connection that is back within that was not lost
const HIDDEN = 60000; // a page that nobody sees leaves its connection to others

class Link extends EventTarget {
  gateway = { state: "connecting", since: Date.now() };
  masters = []; // { name, state, since, reachable }

  #source = null;
  #patience = null;
  #again = null;
  #hidden = null;

  start() {
    this.#connect();
    document.addEventListener("visibilitychange", () => {
      clearTimeout(this.#hidden);
      if (document.hidden) {
        this.#hidden = setTimeout(() => this.#close(), HIDDEN);
      } else if (this.#source === null) {
        this.#connect();
        this.dispatchEvent(new Event("reset"));
      }
    });
  }

  // Also told by a request that failed or did not, sooner than by the stream.
  setMasters(masters) {
    for (const master of masters) this.#setMaster(master);
  }

  #close() {
    clearTimeout(this.#again);
    this.#source?.close();
    this.#source = null;
  }

  #connect() {
    this.#close();
    const source = new EventSource(address("events"));
    this.#source = source;
    source.addEventListener("open", () => {
      clearTimeout(this.#patience);
      this.#patience = null;
      const wasLost = this.gateway.state === "lost";
      this.#setGateway("live", Date.now());
      if (wasLost) this.dispatchEvent(new Event("reset"));
    });
    source.addEventListener("error", () => {
      const since = Date.now();
      this.#patience ??= setTimeout(() => this.#setGateway("lost", since), PATIENCE);
      // After an answer that is no stream the browser does not try again by itself.
      if (source.readyState === EventSource.CLOSED && source === this.#source) {
        clearTimeout(this.#again);
        this.#again = setTimeout(() => {
          this.#connect();
          this.dispatchEvent(new Event("reset"));
        }, PATIENCE);
      }
    });
    source.addEventListener("reset", () => this.dispatchEvent(new Event("reset")));
    source.addEventListener("state", (event) => this.#setMaster(JSON.parse(event.data)));
    for (const change of ["added", "changed", "gone"]) {
      source.addEventListener(change, (event) => {
        const detail = { change, record: JSON.parse(event.data) };
        this.dispatchEvent(new CustomEvent("record", { detail }));
      });
    }
  }

  #setGateway(state, since) {
    if (this.gateway.state === state) return;
    this.gateway = { state, since };
    this.dispatchEvent(new Event("change"));
  }

  #setMaster({ master, state, since, reason }) {
    const known = this.masters.find((one) => one.name === master);
    if (known && known.state === state && known.since === since) return;
    const entry = { name: master, state, since, reason, reachable: state !== "away" };
    this.masters = [...this.masters.filter((one) => one !== known), entry]
      .sort((left, right) => (left.name < right.name ? -1 : 1));
    this.dispatchEvent(new Event("change"));
    // What was missed while it was away shows in its list.
    if (known && !known.reachable && entry.reachable) this.dispatchEvent(new Event("reset"));
  }
}

export const link = new Link();
