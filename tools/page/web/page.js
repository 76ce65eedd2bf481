// The page: what the server tells once a second, and the details of what is chosen.
import { showDetails } from "./details.js";
import { at, set } from "./elements.js";
import { clock } from "./figures.js";
import { showOverview } from "./overview.js";
import { showEvents, showProblems } from "./problems.js";
import { ask, listen } from "./server.js";
import { subjectOf } from "./subjects.js";

const OLD_AFTER = 5000;  // ms without news
const OVERVIEW_INTERVAL = 30000;

let state = null;
let heard = 0;  // when the last news came, by this browser's clock
let hours = new Map();  // of all, by subject

function show() {
  if (!state) return;
  state.hours = hours;
  set(at("machine"), state.machine);
  showProblems(state);
  showOverview(state);
  showDetails(state);
  showEvents(state);
}

async function refreshHours() {
  try {
    hours = new Map((await ask("history")).series.map((series) => [subjectOf(series), series]));
    show();
  } catch {
    // The next time will do.
  }
}

function showAge() {
  const age = Date.now() - heard;
  const old = age > OLD_AFTER;
  document.body.classList.toggle("stale", old);
  const since = state ? `What is shown is from ${clock(state.time)}`
    : "Nothing has been received yet";
  for (const note of document.querySelectorAll(".old")) {
    note.hidden = !old;
    set(note, `The server does not answer. ${since}; trying again.`);
  }
  set(at("age"), old ? "Not connected" : `Live, ${clock(state.time)}`);
}

listen((latest) => {
  const isAnew = !state || latest.number < state.number;
  state = latest;
  // The server sends the worst first; of each subject, that one is kept.
  state.worst = new Map([...state.problems].reverse().map((one) => [subjectOf(one), one]));
  heard = Date.now();
  show();
  showAge();
  if (isAnew) refreshHours();
});
setInterval(() => state && showAge(), 1000);
setTimeout(() => state || showAge(), OLD_AFTER);
setInterval(refreshHours, OVERVIEW_INTERVAL);
