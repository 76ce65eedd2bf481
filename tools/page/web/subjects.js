// What problems, events and figures are about: a stream, a process, or one of its channels.
import { at } from "./elements.js";

// As the server takes it in a query, and as the page's address has it.
export const subjectOf = (item) => item.stream != null
  ? `stream=${encodeURIComponent(item.stream)}`
  : `pid=${item.pid}&direction=${item.direction}&channel=${item.channel}`;

export const titleOf = (process) => `${process.command} (process ${process.pid})`;

// A stream or a channel has details; else what stands for it on the page is shown.
export function choose(item) {
  if (item.stream != null || item.channel != null) {
    location.hash = subjectOf(item);
    return;
  }
  const cards = at(item.input ? "process-list" : "host-list").children;
  const part = [...cards].find((card) => card.dataset.key.startsWith(`${item.pid} `)) ??
    at(item.pid ? "ended" : "streams");
  part.open = true;
  part.scrollIntoView();
  // Whoever came by keyboard goes on from there.
  (part.querySelector("summary, button") ?? part).focus({ preventScroll: true });
}
