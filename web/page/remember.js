// What a browser keeps between visits. One that keeps nothing is no mistake:
// the page then begins as it does for everybody.

export function remembered(key) {
  try {
    return localStorage.getItem(key);
  } catch {
    return null;
  }
}

export function remember(key, value) {
  try {
    localStorage.setItem(key, value);
  } catch {
    // nothing is kept
  }
}
