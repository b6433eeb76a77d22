// Results as files.

// A spreadsheet would take a text that begins so for something to calculate.
const FORMULA = /^[=+@\t\r]|^-(?![\d.]+$)/;

function field(value) {
  let text = value === null || value === undefined ? "" : String(value);
  if (Array.isArray(value)) text = value.join("; ");
  if (typeof value !== "number" && FORMULA.test(text)) text = `'${text}`;
  return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}

// Items as comma-separated values (RFC 4180): one line for each, its facts as
// the API has them. A text that a spreadsheet would calculate gets a "'" in
// front.
export function csv(items, facts) {
  const head = ["subject", "authority", "item", ...facts];
  const lines = items.map((item) => [item.subject, item.authority, item.name,
    ...facts.map((fact) => (Object.hasOwn(item.facts, fact) ? item.facts[fact] : ""))]);
  return [head, ...lines].map((line) => line.map(field).join(",")).join("\r\n").concat("\r\n");
}

export function jsonText(items) {
  return `${JSON.stringify(items, null, 2)}\n`;
}
