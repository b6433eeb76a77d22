// Sizes, ages, times and facts as people read them. Nothing here touches the
// document, so all of it can be tried without one.

const UNITS = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];
const NUMBER = new Intl.NumberFormat("en-GB", { maximumFractionDigits: 3 });

// Three digits, as in "9.54 GiB" and "252 GiB".
export function size(bytes) {
  if (!Number.isFinite(bytes)) return String(bytes);
  let value = Math.abs(bytes);
  let unit = 0;
  while (value >= 1023.5 && unit < UNITS.length - 1) {
    value /= 1024;
    unit += 1;
  }
  const digits = unit === 0 || value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
  return `${bytes < 0 ? "−" : ""}${value.toFixed(digits)} ${UNITS[unit]}`;
}

export function number(value) {
  return Number.isFinite(value) ? NUMBER.format(value) : String(value);
}

export function count(value, one, many = `${one}s`) {
  return `${number(value)} ${value === 1 ? one : many}`;
}

// The two largest units of a span: "42 s", "6 min", "3 h 5 min", "2 d 7 h".
export function span(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  if (whole < 60) return `${whole} s`;
  if (whole < 3600) return `${Math.floor(whole / 60)} min`;
  if (whole < 86400) {
    const minutes = Math.floor((whole % 3600) / 60);
    return `${Math.floor(whole / 3600)} h${minutes ? ` ${minutes} min` : ""}`;
  }
  const days = Math.floor(whole / 86400);
  if (days >= 3650) return `${Math.floor(days / 365.25)} years`;
  const hours = Math.floor((whole % 86400) / 3600);
  return `${number(days)} d${days < 10 && hours ? ` ${hours} h` : ""}`;
}

// The time of a service as milliseconds, NaN when there is none.
export function moment(time) {
  return typeof time === "string" ? Date.parse(time) : NaN;
}

export function age(time, now = Date.now()) {
  const at = moment(time);
  if (Number.isNaN(at)) return "–";
  return span((now - at) / 1000);
}

// What is left until a time: "in 6 min", or "overdue".
export function until(time, now = Date.now()) {
  const at = moment(time);
  if (Number.isNaN(at)) return "–";
  if (new Date(at).getUTCFullYear() >= 9999) return "never";
  return at <= now ? "overdue" : `in ${span((at - now) / 1000)}`;
}

const pad = (value) => String(value).padStart(2, "0");

// In the reader's own zone: "2026-11-20 10:15:00".
export function clock(time) {
  const at = new Date(typeof time === "number" ? time : moment(time));
  if (Number.isNaN(at.getTime())) return "–";
  return `${at.getFullYear()}-${pad(at.getMonth() + 1)}-${pad(at.getDate())} ` +
    `${pad(at.getHours())}:${pad(at.getMinutes())}:${pad(at.getSeconds())}`;
}

// The time of day, with the day before it when that is another than today's.
export function shortClock(time, now = Date.now()) {
  const text = clock(time);
  return text.slice(0, 10) === clock(now).slice(0, 10) ? text.slice(11) : text;
}

const ISO = /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$/;

// A value as the schema has it: where its description did not lie beside it, a
// number comes as the text that was written.
export function typed(value, about = {}) {
  if (typeof value !== "string" || !["number", "size", "duration"].includes(about.type)) return value;
  return /^\d+(\.\d+)?%?$/.test(value) ? Number.parseFloat(value) : value;
}

// A fact's value as text, by what the schema says of it: { type, unit }.
export function fact(given, about = {}) {
  const value = typed(given, about);
  if (value === null || value === undefined) return "";
  if (Array.isArray(value)) return value.map((one) => fact(one, about)).join(", ");
  if (about.type === "size" && typeof value === "number") return size(value);
  if (about.type === "duration" && typeof value === "number") return span(value);
  if (typeof value === "boolean") return value ? "yes" : "no";
  if (typeof value === "number") {
    if (about.unit === "%") return `${number(value)} %`;
    return about.unit ? `${number(value)} ${about.unit}` : number(value);
  }
  if (typeof value === "string" && ISO.test(value)) return clock(value);
  return String(value);
}

// The exact value behind what fact() rounds, for those who point at it; null
// where nothing is hidden.
export function exact(given, about = {}) {
  const value = typed(given, about);
  if (about.type === "size" && typeof value === "number") return `${number(value)} bytes`;
  if (about.type === "duration" && typeof value === "number") return `${number(value)} seconds`;
  if (typeof value === "string" && ISO.test(value)) return value;
  return null;
}

// Puts "web2" before "web10".
const COLLATOR = new Intl.Collator("en", { numeric: true });

export function compare(left, right) {
  const none = (value) => value === null || value === undefined || value === "";
  if (none(left) || none(right)) return Number(none(left)) - Number(none(right));
  if (typeof left === "number" && typeof right === "number") return left - right;
  return COLLATOR.compare(String(left), String(right));
}
