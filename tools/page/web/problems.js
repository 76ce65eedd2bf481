// What is wrong, and what has happened.
import { LEVELS, at, badge, button, list, make, set } from "./elements.js";
import { clock, date, plural, ranges, span } from "./figures.js";
import { ask } from "./server.js";
import { choose, titleOf } from "./subjects.js";

const MANY = 4;  // problems that are alike are told as one
const SHOWN_EVENTS = 200;

export const lasting = (now, { text, since, until = since }) => `${text} (for ` +
  (until - since > 5 ? `${span(now - until)} to ` : "") + `${span(now - since)})`;

// Problems of one subject stand together; and where many subjects of a process, or many streams,
// have the same ones, so do they.
function groupsOfProblems(state) {
  const subjects = new Map();
  for (const problem of state.problems) {
    const all = subjects.get(problem.title) ?? [];
    all.push(problem);
    subjects.set(problem.title, all);
  }
  const alike = new Map();
  for (const all of subjects.values()) {
    // What stands behind a colon differs.
    const key = JSON.stringify([all[0].pid, all[0].direction,
      all.map((problem) => [problem.level, problem.text.split(":")[0]])]);
    alike.set(key, [...alike.get(key) ?? [], all]);
  }
  return [...alike].flatMap(([key, group]) => group.length < MANY
    ? group.map((all) => ({ key: all[0].title, title: all[0].title, problem: all[0],
      lines: all.map((problem) => lasting(state.time, problem)) }))
    : [manyAlike(state, key, group)]);
}

function manyAlike(state, key, group) {
  const [first] = group[0];
  const owner = [...state.hosts, ...state.processes].find((one) => one.pid === first.pid);
  const title = owner ? titleOf(owner) : "";
  const names = first.direction
    ? [`${first.direction} ${ranges(group.map(([problem]) => problem.channel))}`]
    : group.map(([problem]) => title && problem.title.startsWith(title)
      ? problem.title.slice(title.length + 2) : problem.title);
  const times = group.map(([problem]) => problem.since);
  const since = Math.min(...times), until = Math.max(...times);
  return { key, problem: { level: first.level, pid: first.pid, input: first.input },
    title: first.stream != null ? plural(group.length, "watched stream")
      : `${title}: ${plural(group.length, first.direction ? "channel" : "input")}`,
    lines: [...group[0].map((problem) =>
      lasting(state.time, { text: problem.text.split(":")[0], since, until })), names.join(", ")] };
}

export function showProblems(state) {
  const alarms = state.problems.filter((problem) => problem.level === "alarm").length;
  const warnings = state.problems.length - alarms;
  const verdict = at("verdict");
  verdict.className = `verdict ${alarms ? "alarm" : warnings ? "warning" : "ok"}`;
  const channels = state.hosts.reduce((sum, host) => sum + host.channels.length, 0);
  set(verdict, alarms || warnings
    ? [alarms && plural(alarms, "alarm"), warnings && plural(warnings, "warning")]
        .filter(Boolean).join(", ")
    : channels + state.streams.length ? "Everything works." : "There is nothing to look at yet.");
  set(at("counts"), `${plural(state.hosts.length, "host")}, ${plural(channels, "channel")}, ` +
    `${plural(state.streams.length, "watched stream")}`);
  document.title = (alarms ? `(${alarms}) ` : "") + `${state.machine} – qxvrtp`;
  list(at("problems"), groupsOfProblems(state), (group) => group.key,
    (group) => {
      const item = make("li");
      const open = button("", () => choose(group.problem));
      const what = make("span", "what");
      what.append(make("b"), make("span"));
      open.append(make("span"), what);
      item.append(open);
      return item;
    },
    (item, { problem, title, lines }) => {
      const [level, what] = item.firstChild.children;
      item.className = problem.level;
      badge(level, problem.level);
      set(what.children[0], title);
      set(what.children[1], lines.join("\n"));
    });
}

let events = [];
let fetching = false;

export const eventsOf = (stream) => events.filter((event) => event.stream === stream).reverse();

function eventItem(event) {
  const item = make("li");
  const level = make("span");
  badge(level, event.kind);
  const time = make("time", "", clock(event.time));
  time.dateTime = date(event.time).toISOString();
  item.append(time, level, make("span", "", `${event.title}: ${event.text}`));
  return item;
}

export async function showEvents(state) {
  const last = events.at(-1)?.number ?? 0;
  if (fetching || state.last_event === last) return;
  fetching = true;
  try {
    // A server that has begun anew counts anew.
    const after = state.last_event < last ? 0 : last;
    if (after === 0) events = [];
    const fresh = (await ask(`log?after=${after}`)).events;
    events = [...events, ...fresh].slice(-SHOWN_EVENTS);
    at("quiet").hidden = events.length > 0;
    list(at("events"), [...events].reverse(), (event) => `${event.number} ${event.time}`,
      eventItem);
    const alarms = fresh.filter((event) => after > 0 && event.kind !== "host").slice(-3);
    if (alarms.length)
      set(at("announcement"), alarms.map((event) =>
        `${LEVELS[event.kind].slice(2)}: ${event.title}: ${event.text}`).join(". "));
  } catch {
    // The next state asks again.
  } finally {
    fetching = false;
  }
}
