// The gateway's API, as docs/api.md has it. Every address is below the page's
// own, so that the page works behind a proxy with a prefix, too.

const BASE = new URL("api/v1/", document.baseURI);

// What the gateway answered instead of an answer. `position` is where the
// mistake in a query is ({ line, column, offset }), null elsewhere.
export class Problem extends Error {
  constructor(status, title, detail, position) {
    super(detail || title);
    this.status = status; // 0: the gateway was not reached at all
    this.title = title;
    this.position = position;
  }
}

// An answer that came to its end and lacks something, with the items that there are.
export class Incomplete extends Error {
  constructor(items) {
    super("Some of it could not be read.");
    this.items = items;
  }
}

export function address(path, parameters = {}) {
  const url = new URL(path, BASE);
  for (const [name, value] of Object.entries(parameters)) {
    if (value !== null && value !== undefined && value !== "") url.searchParams.set(name, value);
  }
  return url;
}

// A name as one part of a path. Browsers take "." and ".." for folders, however
// they are encoded.
export function part(text) {
  if (/^\.{1,2}$/.test(text)) {
    throw new Problem(0, "No browser can ask for something of this name", null, null);
  }
  return encodeURIComponent(text);
}

async function problemOf(response) {
  let body = {};
  try {
    if ((response.headers.get("content-type") ?? "").includes("json")) body = await response.json();
  } catch {
    // a body that is no JSON tells nothing more than the status
  }
  const title = body.title || `The gateway answered ${response.status}`;
  return new Problem(response.status, title, body.detail, body.position ?? null);
}

async function ask(url, accept, signal) {
  let response;
  try {
    response = await fetch(url, { headers: { accept }, signal, credentials: "same-origin" });
  } catch (error) {
    if (error.name === "AbortError") throw error;
    throw new Problem(0, "The gateway does not answer", null, null);
  }
  if (!response.ok) throw await problemOf(response);
  return response;
}

export async function json(path, parameters, signal) {
  return (await ask(address(path, parameters), "application/json", signal)).json();
}

export async function text(path, accept, signal) {
  return (await ask(address(path), accept, signal)).text();
}

// The objects of a stream of JSON lines, as they come, in batches: one for
// each piece that the network delivers.
export async function* lines(path, parameters, signal) {
  const response = await ask(address(path, parameters), "application/jsonl", signal);
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let rest = "";
  for (;;) {
    const { done, value } = await reader.read();
    const whole = (rest + (value ?? "")).split("\n");
    rest = done ? "" : whole.pop();
    const batch = whole.filter((line) => line !== "").map((line) => JSON.parse(line));
    if (batch.length) yield batch;
    if (done) return;
  }
}

// All items that answer, in batches as they come. Lines that lack something break off, and of what
// breaks off a browser drops what has come and was not read yet, be it all: then they are asked for
// in the form that says what it lacks, and are thrown with what is Incomplete.
export async function* items(parameters, signal) {
  try {
    yield* lines("items", parameters, signal);
  } catch (error) {
    if (error instanceof Problem || error.name === "AbortError") throw error;
    const collections = await json("items", parameters, signal);
    throw new Incomplete(collections.flatMap(({ items: own, schema, attributes, complete, ...record }) =>
      own.map((item) => ({ ...record, ...item }))));
  }
}
