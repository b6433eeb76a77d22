// Elements made from data. Whatever comes from a host goes through here and
// becomes text, never markup.

const SVG = "http://www.w3.org/2000/svg";
const SVG_TAGS = new Set(["svg", "g", "rect", "line", "text", "title"]);

// An element with attributes, listeners ("onclick": function) and children
// (nodes, strings, or lists of them; what is null is left out). An attribute
// that is true is set empty, one that is false or null is not set.
export function make(tag, attributes = {}, ...children) {
  const node = SVG_TAGS.has(tag) && tag !== "title"
    ? document.createElementNS(SVG, tag)
    : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith("on")) node.addEventListener(name.slice(2), value);
    else if (value === true) node.setAttribute(name, "");
    else if (value !== false && value !== null && value !== undefined) {
      node.setAttribute(name, String(value));
    }
  }
  node.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined));
  return node;
}

// What could turn text around, hide in it, or break its line.
const ODD = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/g;

// A name or value on one line in which such characters can be seen.
export function visible(text) {
  return String(text).replace(ODD, (character) => {
    const code = character.codePointAt(0);
    if (code < 0x20) return String.fromCodePoint(0x2400 + code);
    return `[U+${code.toString(16).toUpperCase().padStart(4, "0")}]`;
  });
}

// A name from outside, kept from reordering what stands beside it.
export function name(text, attributes = {}) {
  return make("bdi", attributes, visible(text));
}

let announcements = 0;

// Says something to those who listen to the page; twice the same is said twice.
export function announce(text) {
  announcements += 1;
  document.getElementById("announce").textContent = announcements % 2 ? text : `${text}\u00a0`;
}

// Gives the user a file to save.
export function save(fileName, type, text) {
  const address = URL.createObjectURL(new Blob([text], { type }));
  const anchor = make("a", { href: address, download: fileName });
  anchor.click();
  setTimeout(() => URL.revokeObjectURL(address), 60000);
}
