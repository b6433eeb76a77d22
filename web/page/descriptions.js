// What can be asked for of each authority, fetched once.

import * as api from "./api.js";

const known = new Map();

// The attributes of the filter description, in its order; an empty list when
// nobody describes any.
export async function attributesOf(authority, signal) {
  if (!known.has(authority)) {
    let found = await api.json(`filters/${api.part(authority)}`, {}, signal);
    // What is produced on demand is described under a name of its own.
    if (!found.length) {
      found = await api.json(`filters/${api.part(`${authority}-filter`)}`, {}, signal);
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
