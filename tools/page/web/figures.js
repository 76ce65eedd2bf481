// Figures as people read them.

const isKnown = (value) => value !== null && value !== undefined;

export const rate = (bps) => !isKnown(bps) ? "–"
  : bps >= 1e6 ? (bps / 1e6).toFixed(3) + " Mbit/s"
  : bps >= 1e3 ? (bps / 1e3).toFixed(1) + " kbit/s" : bps.toFixed(0) + " bit/s";
export const ms = (value) => isKnown(value) ? value.toFixed(2) + " ms" : "–";
export const count = (value) => isKnown(value) ? value.toLocaleString("en") : "–";
export const plural = (n, word) => `${n} ${word}${n === 1 ? "" : "s"}`;

// Times are seconds since the epoch.
export const date = (seconds) => new Date(seconds * 1000);
export const clock = (seconds) => date(seconds).toLocaleTimeString("en-GB");
export const moment = (when) => when === null ? "–" : new Date(when).toLocaleString("sv-SE");

export function span(seconds) {
  const s = Math.max(0, Math.round(seconds));
  if (s < 120) return `${s} s`;
  if (s < 7200) return `${Math.floor(s / 60)} min`;
  return s < 172800 ? `${Math.floor(s / 3600)} h` : `${Math.floor(s / 86400)} days`;
}

// "0 to 3, 5"
export function ranges(numbers) {
  const runs = [];
  for (const number of numbers.sort((a, b) => a - b)) {
    if (runs.at(-1)?.[1] === number - 1) runs.at(-1)[1] = number;
    else runs.push([number, number]);
  }
  return runs.map(([from, to]) => from === to ? from : `${from} to ${to}`).join(", ");
}
