// The query language as far as writing it goes: which word the caret is in,
// what could stand there, and where a mistake is. Whether a query is right is
// the gateway's to say.

const KEYWORDS = new Set(["and", "or", "not", "like"]);

// The parts of a query: { kind, text, start, end }, in which `kind` is "word",
// "quoted" (`open` when its end is missing), "keyword", "comparator", "(" or ")".
export function tokens(query) {
  const found = [];
  const pattern = /\s+|"((?:[^"]|"")*)("?)|'((?:[^']|'')*)('?)|[()]|!=|<=|>=|[=<>!]|[^\s()=!<>"']+/gy;
  for (const match of query.matchAll(pattern)) {
    const text = match[0];
    if (/^\s/.test(text)) continue;
    const token = { text, start: match.index, end: match.index + text.length };
    if (/^["']/.test(text)) {
      const quote = text[0];
      const inside = (match[1] ?? match[3]).replaceAll(quote + quote, quote);
      found.push({ ...token, kind: "quoted", value: inside, open: !(match[2] || match[4]) });
    } else if (text === "(" || text === ")") found.push({ ...token, kind: text });
    else if (/^[=<>!]/.test(text)) found.push({ ...token, kind: "comparator" });
    else if (KEYWORDS.has(text.toLowerCase())) found.push({ ...token, kind: "keyword" });
    else found.push({ ...token, kind: "word", value: text });
  }
  return found;
}

// What is expected behind the given parts: "attribute", "comparator", "value"
// (with the attribute that it is compared with) or "connective".
function expected(before) {
  let state = { expects: "attribute" };
  for (const token of before) {
    const word = token.kind === "word" || token.kind === "quoted";
    const keyword = token.kind === "keyword" ? token.text.toLowerCase() : null;
    if (token.kind === "(" || keyword === "and" || keyword === "or" || keyword === "not") {
      state = { expects: "attribute" };
    } else if (token.kind === ")") state = { expects: "connective" };
    else if (token.kind === "comparator" || keyword === "like") {
      state = { expects: "value", attribute: state.attribute ?? null };
    } else if (word && state.expects === "attribute") {
      state = { expects: "comparator", attribute: token.value };
    } else if (word && state.expects === "value") state = { expects: "connective" };
  }
  return state;
}

// A text as it is written in a query.
export function written(text) {
  const plain = /^[^\s()=!<>"'+*/]+$/.test(text) && !KEYWORDS.has(text.toLowerCase());
  return plain ? text : `"${text.replaceAll('"', '""')}"`;
}

const HINTS = { text: "text", number: "number", size: "10G, 512M", duration: "15m, 2h, 1d",
  time: "2026-11-20T10:15:00Z", boolean: "true or false" };

// What could stand at the caret: { start, end, entries, hint }. Choosing an
// entry ({ text, label, detail }) replaces the query from start to end by its
// text. `attributes` are those of the filter description, `values` is a map
// from an attribute's name to values that were seen.
export function completions(query, caret, attributes, values = new Map()) {
  const all = tokens(query);
  const current = all.find((token) => token.start < caret && caret <= token.end &&
    (token.kind === "word" || token.kind === "keyword" ||
     (token.kind === "quoted" && token.open))) ?? null;
  const start = current?.start ?? caret;
  const before = all.filter((token) => token.end <= start && token !== current);
  const state = expected(before);
  const prefix = (current ? query.slice(start, caret) : "").replace(/^["']/, "").toLowerCase();
  let entries = [];
  let hint = null;
  if (state.expects === "attribute") {
    entries = attributes.map((one) => ({ text: `${written(one.name)} `, label: one.name,
      detail: [one.unit || one.type, one.description].filter(Boolean).join(" · ") }));
    if (!before.length || before.at(-1).text.toLowerCase() !== "not") {
      entries.push({ text: "not ", label: "not", detail: "the opposite" });
    }
  } else if (state.expects === "comparator") {
    const about = attributes.find((one) => one.name === state.attribute);
    const order = !about || about.type === "text" || about.type === "boolean"
      ? ["=", "!=", "like", "<", "<=", ">", ">="]
      : ["=", "!=", "<", "<=", ">", ">=", "like"];
    entries = order.map((text) => ({ text: `${text} `, label: text, detail: MEANINGS[text] }));
  } else if (state.expects === "value") {
    const about = attributes.find((one) => one.name === state.attribute);
    hint = about ? HINTS[about.type] ?? null : null;
    const seen = [...(values.get(state.attribute) ?? [])].map(String);
    const proposed = about?.type === "boolean" ? ["true", "false"] : seen;
    entries = proposed.map((text) => ({ text: `${written(text)} `, label: text, detail: "" }));
  } else {
    entries = ["and", "or"].map((text) => ({ text: `${text} `, label: text, detail: MEANINGS[text] }));
  }
  const fitting = entries.filter((entry) => entry.label.toLowerCase().startsWith(prefix));
  const inside = entries.filter((entry) => prefix !== "" && !fitting.includes(entry) &&
    entry.label.toLowerCase().includes(prefix));
  return { start, end: current ? Math.max(caret, current.end) : caret,
    entries: [...fitting, ...inside], hint };
}

const MEANINGS = {
  "=": "is", "!=": "is not", "<": "less than", "<=": "at most", ">": "more than",
  ">=": "at least", like: 'matches, as in "nfs*"', and: "both", or: "either",
};

// Where a place (line and column from 1, columns in bytes of UTF-8) is in a
// text, as the index of a JavaScript string.
export function indexOf(query, { line, column }) {
  const rows = query.split("\n");
  if (line > rows.length) return query.length;
  let index = rows.slice(0, line - 1).reduce((sum, row) => sum + row.length + 1, 0);
  let bytes = 1;
  for (const character of rows[line - 1]) {
    if (bytes >= column) break;
    const code = character.codePointAt(0);
    bytes += code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    index += character.length;
  }
  return index;
}

// What to underline of a mistake at an index: the word there, or one character.
export function mistakeRange(query, index) {
  const token = tokens(query).find((one) => one.start <= index && index < one.end);
  return token ? { start: index, end: token.end } : { start: index, end: index + 1 };
}

