// A payload as it is, byte for byte.

import * as api from "./api.js";
import { make, save } from "./dom.js";
import { count } from "./format.js";

const SHOWN = 512 * 1024; // characters; the rest can be saved

export async function payloadView(room, path, record, signal) {
  room.replaceChildren(make("p", { class: "empty" }, "Asking for it …"));
  let text;
  try {
    text = await api.text(path, "application/xml", signal);
  } catch (error) {
    if (error.name === "AbortError") return;
    room.replaceChildren(make("p", { class: "problem", role: "alert" }, error.message));
    return;
  }
  if (!room.isConnected) return;
  const cut = text.length > SHOWN;
  const fileName = `${record.subject}-${record.authority}`.replace(/[^A-Za-z0-9._-]+/g, "_")
    .slice(0, 120);
  room.replaceChildren(
    make("div", { class: "bar payload-bar" },
      make("span", { class: "soft" }, cut
        ? `The first ${count(SHOWN, "character")} of ${count(text.length, "character")}`
        : count(text.length, "character")),
      make("span", { class: "grow" }),
      make("button", { type: "button", onclick: () => save(`${fileName}.xml`, "application/xml", text) },
        "Save as XML")),
    make("pre", { class: "payload mono", tabindex: "0", "aria-label": "Payload" },
      cut ? text.slice(0, SHOWN) : text));
}
