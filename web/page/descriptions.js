// What can be asked for of each authority, fetched once.

import * as api from "./api.js";

const known = new Map();

// Hosts describe much the same: these many in a row without news are enough.
const SAMPLE = 20;

// The attributes of the filter description, in its order; an empty list when
// nobody describes any.
export async function attributesOf(authority, signal) {
  if (!known.has(authority)) {
    let found = await api.json(`filters/${api.part(authority)}`, { sample: SAMPLE }, signal);
    // What is produced on demand is described under a name of its own.
    if (!found.length) {
      found = await api.json(`filters/${api.part(`${authority}-filter`)}`, { sample: SAMPLE },
        signal);
    }
    if (!found.length) return found; // somebody may describe them later
    known.set(authority, found);
  }
  return known.get(authority);
}

// The same by name, as the schema of a collection has it.
export function schemaOf(attributes) {
  return Object.fromEntries(attributes.map((one) => [one.name, one]));
}
