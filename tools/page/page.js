// The page: what the server tells once a second, and the details of what is chosen. Texts from
// streams and processes only ever become text nodes.
"use strict";

const OLD_AFTER = 5000;        // ms without news
const RETRY = 2000;
const OVERVIEW_INTERVAL = 30000;
const DETAILS_INTERVAL = 2000;
const CHART_INTERVAL = 5000;
const SHOWN_EVENTS = 200;

const at = (id) => document.getElementById(id);

// Elements keep their identity while they show the same thing, so that focus and selection stay.
function set(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function make(name, className, text) {
  const element = document.createElement(name);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

function button(className, action) {
  const element = make("button", className);
  element.type = "button";
  element.addEventListener("click", action);
  return element;
}

// One child for each item, in their order; `build` makes one, `update` fills it.
function list(parent, items, key, build, update) {
  const old = new Map([...parent.children].map((child) => [child.dataset.key, child]));
  items.forEach((item, i) => {
    const name = String(key(item));
    let child = old.get(name);
    if (child) old.delete(name);
    else {
      child = build(item);
      child.dataset.key = name;
    }
    if (parent.children[i] !== child) parent.insertBefore(child, parent.children[i] ?? null);
    update(child, item);
  });
  for (const child of old.values()) child.remove();
}

const rate = (bps) => bps === null || bps === undefined ? "–"
  : bps >= 1e6 ? (bps / 1e6).toFixed(3) + " Mbit/s"
  : bps >= 1e3 ? (bps / 1e3).toFixed(1) + " kbit/s" : bps.toFixed(0) + " bit/s";
const ms = (value) => value === null || value === undefined ? "–" : value.toFixed(2) + " ms";
const count = (value) => value === null || value === undefined ? "–" : value.toLocaleString("en");
const plural = (n, word) => `${n} ${word}${n === 1 ? "" : "s"}`;
const date = (seconds) => new Date(seconds * 1000);
const clock = (seconds) => date(seconds).toLocaleTimeString("en-GB");
const moment = (when) => when === null ? "–" : new Date(when).toLocaleString("sv-SE");

function span(seconds) {
  const s = Math.max(0, Math.round(seconds));
  if (s < 120) return `${s} s`;
  if (s < 7200) return `${Math.floor(s / 60)} min`;
  return s < 172800 ? `${Math.floor(s / 3600)} h` : `${Math.floor(s / 86400)} days`;
}

const LEVELS = { alarm: "▲ Alarm", warning: "◆ Warning", ok: "● Good", cleared: "● Cleared",
  host: "○ Host" };

function badge(element, level) {
  element.className = `badge ${level === "cleared" ? "ok" : level}`;
  set(element, LEVELS[level]);
}

let state = null;
let heard = 0;  // when the last news came, by this browser's clock
let hours = new Map();  // overviews, by subject

const subjectOf = (item) => item.stream != null ? `stream=${encodeURIComponent(item.stream)}`
  : `pid=${item.pid}&direction=${item.direction}&channel=${item.channel}`;

const lasting = (problem) => `${problem.text} (for ${span(state.time - problem.since)})`;

function problemOf(subject) {
  return state.problems.find((problem) => subjectOf(problem) === subject);
}

function showProblems() {
  const alarms = state.problems.filter((problem) => problem.level === "alarm").length;
  const warnings = state.problems.length - alarms;
  const verdict = at("verdict");
  verdict.className = `verdict ${alarms ? "alarm" : warnings ? "warning" : "ok"}`;
  const channels = state.hosts.reduce((sum, host) => sum + host.channels.length, 0);
  const text = alarms || warnings
    ? [alarms && plural(alarms, "alarm"), warnings && plural(warnings, "warning")]
        .filter(Boolean).join(", ")
    : channels + state.streams.length ? "Everything works." : "There is nothing to look at yet.";
  set(verdict, text);
  set(at("counts"), `${plural(state.hosts.length, "host")}, ${plural(channels, "channel")}, ` +
    `${plural(state.streams.length, "watched stream")}`);
  document.title = (alarms ? `(${alarms}) ` : "") + `${state.machine} – qxvrtp`;
  // All of one subject together, where the first of them stands.
  const groups = new Map();
  for (const problem of state.problems) {
    const group = groups.get(problem.title) ?? { problem, lines: [] };
    group.lines.push(lasting(problem));
    groups.set(problem.title, group);
  }
  list(at("problems"), [...groups.values()], (group) => group.problem.title,
    (group) => {
      const item = make("li");
      const open = button("", () => choose(group.problem));
      const what = make("span", "what");
      what.append(make("b"), make("span"));
      open.append(make("span"), what);
      item.append(open);
      return item;
    },
    (item, { problem, lines }) => {
      const [level, what] = item.firstChild.children;
      item.className = problem.level;
      badge(level, problem.level);
      set(what.children[0], problem.title);
      set(what.children[1], lines.join("\n"));
    });
}

function sparkline(cell, subject, now) {
  const hour = hours.get(subject);
  if (!cell.firstChild) {
    const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
    svg.setAttribute("class", "hour");
    svg.setAttribute("viewBox", "0 0 60 20");
    svg.setAttribute("preserveAspectRatio", "none");
    svg.setAttribute("aria-hidden", "true");
    const base = document.createElementNS(svg.namespaceURI, "line");
    for (const [name, value] of [["x1", 0], ["x2", 60], ["y1", 19.5], ["y2", 19.5]])
      base.setAttribute(name, value);
    svg.append(base, document.createElementNS(svg.namespaceURI, "path"));
    cell.append(svg);
  }
  const rates = hour ? [...hour.bitrate_bps, now] : [];
  const top = Math.max(1, ...rates.filter((value) => value !== null));
  let path = "", pen = "M";
  rates.forEach((value, i) => {
    if (value === null) pen = "M";
    else {
      path += `${pen}${(i * 60 / (rates.length - 1)).toFixed(1)} ${(19 - 18 * value / top).toFixed(1)}`;
      pen = "L";
    }
  });
  cell.firstChild.lastChild.setAttribute("d", path);
}

function row(columns, subject) {
  const line = make("tr");
  for (const column of columns) line.append(make("td", column));
  line.children[0].append(make("span"));
  const open = button("link", () => choose(subject()));
  line.children[1].append(open, make("small"));
  return line;
}

function showStreams() {
  at("streams").hidden = state.streams.length === 0;
  const rank = (stream) => problemOf(subjectOf({ stream: stream.name })) ? 0 : 1;
  const sorted = [...state.streams].sort((a, b) => rank(a) - rank(b));
  list(at("streams").querySelector("tbody"), sorted, (stream) => stream.name,
    (stream) => row(["", "name", "number", "wide", "number wide", "number wide", "number",
      "number wide"], () => ({ stream: stream.name })),
    (line, stream) => {
      const cells = line.children;
      const subject = subjectOf({ stream: stream.name });
      badge(cells[0].firstChild, problemOf(subject)?.level ?? "ok");
      set(cells[1].firstChild, stream.name);
      set(cells[1].lastChild, stream.programmes.join(", ") ||
        (stream.name === stream.url ? "" : stream.url));
      set(cells[2], stream.signal ? rate(stream.bitrate_bps) : "no signal");
      sparkline(cells[3], subject, stream.bitrate_bps);
      set(cells[4], ms(stream.delay_factor_ms));
      set(cells[5], ms(stream.jitter_ms));
      set(cells[6], count(stream.continuity_errors));
      set(cells[7], count(stream.packets_lost));
    });
}

function showChannels(body, host) {
  const of = (channel) => ({ pid: host.pid, direction: channel.direction,
    channel: channel.channel });
  const rank = (channel) => problemOf(subjectOf(of(channel))) ? 0 : 1;
  const sorted = [...host.channels].sort((a, b) => rank(a) - rank(b));
  list(body, sorted, (channel) => `${channel.direction} ${channel.channel}`,
    (channel) => row(["", "name", "mono", "number", "wide", "number wide"], () => of(channel)),
    (line, channel) => {
      const cells = line.children;
      const subject = subjectOf(of(channel));
      badge(cells[0].firstChild, problemOf(subject)?.level ?? "ok");
      set(cells[1].firstChild, `${channel.direction} ${channel.channel}`);
      set(cells[2], channel.endpoint);
      set(cells[3], channel.socket_open ? rate(channel.bitrate_bps) : "no socket");
      sparkline(cells[4], subject, channel.bitrate_bps);
      set(cells[5], channel.asked_bitrate_bps === null ? "" : rate(channel.asked_bitrate_bps));
    });
}

function tableOf(columns) {
  const frame = make("div", "frame");
  const table = make("table");
  const head = table.createTHead().insertRow();
  for (const [text, className] of columns) {
    const cell = make("th", className, text);
    cell.scope = "col";
    head.append(cell);
  }
  table.createTBody();
  frame.append(table);
  return frame;
}

function showHosts() {
  const incomplete = at("incomplete");
  incomplete.hidden = !state.incomplete_because;
  set(incomplete, `There may be more hosts: ${state.incomplete_because}.`);
  at("none").hidden = state.hosts.length > 0;
  const worst = (host) => state.problems.some((problem) => problem.pid === host.pid) ? 0 : 1;
  const sorted = [...state.hosts].sort((a, b) => worst(a) - worst(b));
  list(at("host-list"), sorted, (host) => `${host.pid} ${host.started}`,
    () => {
      const card = make("article", "host");
      card.append(make("h3"), make("p"), make("p", "note", "None of its channels is started."),
        tableOf([["State"], ["Channel"], ["Address"], ["Rate", "number"],
          ["Rate, last hour", "wide"], ["Asked for", "number wide"]]));
      return card;
    },
    (card, host) => {
      const [title, about, none, frame] = card.children;
      set(title, `${host.command} (process ${host.pid})`);
      set(about, `${host.command_line} · ${host.user} · for ${span(state.time - host.started)}` +
        (host.replaced ? " · its table has been replaced by a later host's" : ""));
      none.hidden = host.channels.length > 0;
      frame.hidden = host.channels.length === 0;
      showChannels(frame.querySelector("tbody"), host);
    });
  at("ended").hidden = state.ended.length === 0;
  list(at("ended").querySelector("ul"), state.ended, (host) => `${host.pid} ${host.started}`,
    (host) => {
      const item = make("li");
      item.append(make("time", "", clock(host.ended)),
        make("span", "", `${host.command} (process ${host.pid}): ${host.command_line}`));
      return item;
    }, () => {});
}

// The inputs of a stream, their paths, and its outputs, as lines of one table.
function linesOf(stream) {
  const name = `${stream.kind} ${stream.name}`;
  const onAir = stream.inputs.some((input) => input.state === "on air");
  const lines = [];
  for (const input of stream.inputs) {
    const works = input.state === "on air" || input.state === "standby";
    lines.push({ level: works ? "ok" : onAir ? "warning" : "alarm", state: input.state,
      text: `from ${input.url}`, note: stream.name === input.url ? stream.kind : name,
      rate: rate(input.bitrate_bps), errors: input.continuity_errors, lost: input.repair?.lost,
      reordered: input.repair?.reordered, restored: input.repair?.restored,
      dropped: input.datagrams_dropped });
    for (const path of input.paths)
      lines.push({ state: "path", text: path.url, lost: path.lost,
        note: `${count(path.saved)} saved by others, ${ms(path.skew_ms)} behind` });
  }
  for (const output of stream.outputs)
    lines.push({ level: output.works ? "ok" : "alarm", state: output.works ? "works" : "down",
      text: `to ${output.url}`, dropped: output.datagrams_dropped + output.send_failures });
  return lines.map((line, i) => ({ ...line, key: `${name} ${i}` }));
}

function showProcesses() {
  at("processes").hidden = state.processes.length === 0;
  list(at("process-list"), state.processes, (process) => `${process.pid} ${process.started}`,
    () => {
      const card = make("article", "host");
      card.append(make("h3"), make("p"), tableOf([["State"], ["Input or output"],
        ["Rate", "number"], ["Errors", "number"], ["Lost", "number"], ["Reordered", "number wide"],
        ["Restored", "number wide"], ["Dropped", "number wide"]]));
      return card;
    },
    (card, process) => {
      const [title, about, frame] = card.children;
      set(title, `${process.command} (process ${process.pid})`);
      set(about, `${process.command_line} · ${process.user}` +
        (process.streams_left_out ? ` · ${process.streams_left_out} more streams` : "") +
        (state.time - process.updated > 5 ? ` · ${span(state.time - process.updated)} old` : ""));
      list(frame.querySelector("tbody"), process.streams.flatMap(linesOf), (line) => line.key,
        () => {
          const row = make("tr");
          for (const className of ["", "name", "number", "number", "number", "number wide",
            "number wide", "number wide"]) row.append(make("td", className));
          row.children[0].append(make("span"));
          row.children[1].append(make("span"), make("small"));
          return row;
        },
        (row, line) => {
          const cells = row.children;
          cells[0].firstChild.className = line.level ? `badge ${line.level}` : "";
          set(cells[0].firstChild, line.level ? `${LEVELS[line.level][0]} ${line.state}`
            : line.state);
          set(cells[1].firstChild, line.text);
          set(cells[1].lastChild, line.note ?? "");
          set(cells[2], line.rate ?? "");
          [line.errors, line.lost, line.reordered, line.restored, line.dropped].forEach(
            (value, i) => set(cells[i + 3], value === undefined ? "" : count(value)));
        });
    });
}

let events = [];
let fetching = false;

function eventItem(event) {
  const item = make("li");
  const level = make("span");
  badge(level, event.kind);
  const time = make("time", "", clock(event.time));
  time.dateTime = date(event.time).toISOString();
  item.append(time, level, make("span", "", `${event.title}: ${event.text}`));
  return item;
}

async function fetchEvents() {
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
      eventItem, () => {});
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

let chosen = null;  // the query of what the dialog shows
let charts = {};

function choose(item) {
  if (item.stream == null && item.channel == null) {
    const host = state.hosts.some((one) => one.pid === item.pid);
    at(host || !state.processes.length ? "hosts" : "processes").scrollIntoView();
    return;
  }
  location.hash = subjectOf(item);
}

function followHash() {
  const subject = location.hash.slice(1);
  if (subject === (chosen ?? "")) return;
  chosen = subject || null;
  for (const chart of Object.values(charts)) chart.destroy();
  charts = {};
  at("stream-details").replaceChildren();
  at("facts").replaceChildren();
  if (!chosen) return at("details").close();
  if (!at("details").open) at("details").showModal();
  at("details").scrollTop = 0;
  showDetails();
  refreshDetails();
  refreshCharts();
}

function facts(pairs) {
  list(at("facts"), pairs, ([name]) => name,
    ([name]) => {
      const pair = make("div");
      pair.append(make("dt", "", name), make("dd"));
      return pair;
    },
    (pair, [, value]) => set(pair.lastChild, value));
}

function showDetails() {
  if (!chosen || !state) return;
  const query = new URLSearchParams(chosen);
  const name = query.get("stream");
  const problems = state.problems.filter((problem) => subjectOf(problem) === chosen);
  const verdict = at("details-state");
  let gone = false;
  at("more-charts").hidden = name === null;
  if (name !== null) {
    const stream = state.streams.find((one) => one.name === name);
    gone = !stream;
    set(at("details-title"), name);
    set(at("details-address"), stream && stream.url !== name ? stream.url : "");
  } else {
    const host = state.hosts.find((one) => one.pid === Number(query.get("pid")));
    const channel = host?.channels.find((one) => one.direction === query.get("direction") &&
      one.channel === Number(query.get("channel")));
    gone = !channel;
    set(at("details-title"), `${query.get("direction")} ${query.get("channel")}` +
      (channel ? `, ${channel.endpoint}` : ""));
    set(at("details-address"), host ? `${host.command} (process ${host.pid}): ${host.command_line}`
      : `Process ${query.get("pid")}`);
    if (channel)
      facts([["Rate", rate(channel.bitrate_bps)],
        ["Asked for", rate(channel.asked_bitrate_bps)],
        ["Form", channel.mode], ["Socket", channel.socket_open ? "open" : "not open"]]);
  }
  const level = problems[0]?.level ?? (gone ? "warning" : "ok");
  verdict.className = `verdict ${level}`;
  set(verdict, problems.map(lasting).join("\n") ||
    (gone ? "It is not there any more." : "No alarm."));
}

function table(title, columns, rows) {
  const part = make("details");
  part.open = true;
  const frame = make("div", "frame");
  const grid = make("table");
  const head = grid.createTHead().insertRow();
  for (const [text, className] of columns) {
    const cell = make("th", className, text);
    cell.scope = "col";
    head.append(cell);
  }
  grid.createTBody();
  frame.append(grid);
  part.append(make("summary", "", title), frame);
  part.fill = (items) => list(grid.tBodies[0], items, (cells) => cells[0],
    () => {
      const line = make("tr");
      for (const [, className] of columns) line.append(make("td", className));
      return line;
    },
    (line, cells) => cells.slice(1).forEach((cell, i) => {
      if (cell?.level) badge(line.children[i].firstChild ?? line.children[i].appendChild(
        make("span")), cell.level);
      else set(line.children[i], cell === null ? "–" : String(cell));
    }));
  part.fill(rows);
  return part;
}

const CHECK_COLUMNS = [["State"], ["Check"], ["No.", "wide"], ["Errors", "number"],
  ["First", "wide"], ["Last"], ["What", "wide"]];
const PID_COLUMNS = [["PID", "number"], ["Type"], ["Codec"], ["Language", "wide"],
  ["Rate", "number"], ["Packets", "number wide"], ["Scrambled", "number wide"],
  ["Continuity errors", "number"]];
const EVENT_COLUMNS = [["Time"], ["State"], ["What"]];
const sentence = (name) => (name[0].toUpperCase() + name.slice(1)).replaceAll("_", " ")
  .replace(/\b(pat|pmt|pid|pcr|pts|cat|crc|si|ts|rtp)\b/gi, (word) => word.toUpperCase());

function streamFacts(found) {
  const rtp = found.rtp;
  const gaps = found.arrival_interval_ms;
  const range = (least, most, unit) => least === null ? "–"
    : least === most ? `${least}${unit}` : `${least} to ${most}${unit}`;
  return [["Rate, last second", rate(found.bitrate_last_second_bps)],
    ["Null packets", found.null_share === null ? "–" : `${(found.null_share * 100).toFixed(1)} %`],
    ["MDI: delay factor", ms(found.mdi.delay_factor_ms)],
    ["MDI: lost in a second", count(found.mdi.media_loss_rate)],
    ["Largest delay factor", ms(found.mdi.delay_factor_max_ms)],
    ["Packets lost in all", count(found.mdi.packets_lost)],
    ["Between datagrams", gaps ? `${ms(gaps.p50)}, at most ${ms(gaps.max)}` : "–"],
    ["Form", found.encapsulation ?? "–"],
    ...(rtp ? [["RTP jitter", ms(rtp.jitter_ms)], ["RTP lost", count(rtp.lost)],
      ["RTP reordered", count(rtp.reordered)], ["RTP duplicates", count(rtp.duplicates)]] : []),
    ["Datagram size", range(found.datagram_bytes_min, found.datagram_bytes_max, " bytes")],
    ["TTL", range(found.ttl_min, found.ttl_max, "")],
    ["Dropped by this machine", count(found.datagrams_dropped)],
    ["Without signal", span(found.seconds_without_signal)],
    ["Sender", found.sources.map((source) => source.address).join(", ") || "–"],
    ["Programmes", found.programmes.map((programme) => programme.name ?? programme.number)
      .join(", ") || "–"]];
}

function checkRows(found) {
  return Object.entries(found.checks)
    .sort(([, a], [, b]) => b.alarm - a.alarm || (b.errors > 0) - (a.errors > 0))
    .map(([name, check]) => [name, { level: check.alarm ? "alarm" : "ok" }, sentence(name),
      check.number, count(check.errors), moment(check.first), moment(check.last), check.detail]);
}

async function refreshDetails() {
  const name = new URLSearchParams(chosen ?? "").get("stream");
  if (name === null) return;
  try {
    const found = (await ask(`streams?stream=${encodeURIComponent(name)}`)).streams[0];
    if (!found || chosen !== subjectOf({ stream: name })) return;
    facts(streamFacts(found));
    const checks = checkRows(found);
    const pids = found.pids.map((pid) => [pid.pid, pid.pid, pid.type, pid.codec, pid.language,
      rate(pid.bitrate_bps), count(pid.packets), count(pid.scrambled_packets),
      count(pid.continuity_errors)]);
    const past = events.filter((event) => event.stream === name).reverse().map((event) =>
      [event.number, date(event.time).toLocaleString("sv-SE"), { level: event.kind }, event.text]);
    const parts = at("stream-details");
    if (!parts.firstChild)
      parts.append(table("Checks (numbers of ETSI TR 101 290)", CHECK_COLUMNS, []),
        table("PIDs", PID_COLUMNS, []), table("Events of this stream", EVENT_COLUMNS, []));
    [checks, pids, past].forEach((rows, i) => parts.children[i].fill(rows));
  } catch {
    // The next time will do.
  }
}

// From the first time on at which something was known.
function rows(hour, column, scale) {
  const first = hour.bitrate_bps.findIndex((value) => value !== null);
  return hour[column].map((value, i) =>
    [date(hour.begin + i * hour.interval_seconds), value === null ? null : value * scale])
    .slice(Math.max(0, first - 1));
}

// The legend sets styles in a way that the page's policy forbids, and is not needed for one curve.
if (typeof Dygraph !== "undefined")
  Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => !String(new plugin()).startsWith("Legend"));

function chart(id, data, options) {
  const readout = at(id).previousElementSibling.querySelector("output");
  if (charts[id]) return charts[id].updateOptions({ file: data });
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  charts[id] = new Dygraph(at(id), data, {
    labels: ["Time", "Value"], colors: [colour("--curve")], gridLineColor: colour("--line"),
    axisLineColor: colour("--line"), includeZero: true, strokeWidth: 1.5,
    axes: { y: { axisLabelWidth: 50 } }, ...options,
    highlightCallback: (event, x, points) =>
      set(readout, ` · ${clock(x / 1000)}: ${points[0].yval.toFixed(3)}`),
    unhighlightCallback: () => set(readout, "") });
}

async function refreshCharts() {
  if (!chosen) return;
  const subject = chosen;
  try {
    const hour = await ask(`history?${subject}`);
    if (chosen !== subject || hour.bitrate_bps.length === 0) return;
    const haveCharts = typeof Dygraph !== "undefined";
    at("no-charts").hidden = haveCharts;
    at("charts").hidden = !haveCharts;
    at("stand-in").hidden = haveCharts;
    if (!haveCharts) return showStandIn(hour);
    chart("rate-chart", rows(hour, "bitrate_bps", 1e-6));
    if (at("more-charts").hidden) return;
    chart("jitter-chart", rows(hour, "jitter_ms", 1));
    chart("error-chart", rows(hour, "errors", 1), { stepPlot: true, fillGraph: true });
  } catch {
    // The next time will do.
  }
}

function showStandIn(hour) {
  const steps = 120, grid = make("table");
  const head = grid.createTHead().insertRow();
  for (const text of ["Time", "Rate", "Jitter", "Errors"]) head.append(make("th", "", text));
  const body = grid.createTBody();
  for (let i = hour.errors.length - 1; i >= Math.max(0, hour.errors.length - steps); i -= 6) {
    if (hour.bitrate_bps[i] === null) continue;
    const line = body.insertRow();
    for (const text of [clock(hour.begin + i * hour.interval_seconds), rate(hour.bitrate_bps[i]),
      ms(hour.jitter_ms[i]), count(hour.errors[i])]) line.insertCell().textContent = text;
  }
  at("stand-in").replaceChildren(grid);
}

async function ask(what) {
  const answer = await fetch(`/api/v1/${what}`);
  if (!answer.ok) throw new Error(answer.statusText);
  return answer.json();
}

async function refreshHours() {
  try {
    const found = (await ask("history")).series;
    hours = new Map(found.map((series) => [subjectOf(series), series]));
    show();
  } catch {
    // The next time will do.
  }
}

function show() {
  if (!state) return;
  set(at("machine"), state.machine);
  showProblems();
  showStreams();
  showHosts();
  showProcesses();
  showDetails();
  fetchEvents();
}

function showAge() {
  const age = Date.now() - heard;
  const old = age > OLD_AFTER;
  document.body.classList.toggle("stale", old);
  at("old").hidden = !old;
  const since = heard ? `What is shown is ${span(age / 1000)} old` : "Nothing has been received yet";
  set(at("old"), `The server does not answer. ${since}; trying again.`);
  set(at("age"), old ? "Not connected" : `Live, ${clock(state.time)}`);
}

function listen() {
  const source = new EventSource("/api/v1/events");
  source.onmessage = (message) => {
    const first = !state || JSON.parse(message.data).number < state.number;
    state = JSON.parse(message.data);
    heard = Date.now();
    show();
    showAge();
    if (first) refreshHours();
  };
  // The browser does not try again by itself in all cases.
  source.onerror = () => {
    source.close();
    setTimeout(listen, RETRY);
  };
}

at("close").addEventListener("click", () => at("details").close());
at("details").addEventListener("close", () => {
  if (location.hash) history.pushState(null, "", "/");
  followHash();
});
at("details").addEventListener("click", (event) => {
  if (event.target === at("details")) at("details").close();
});
addEventListener("hashchange", followHash);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
  for (const one of Object.values(charts)) one.destroy();
  charts = {};
  refreshCharts();
});
listen();
followHash();
setInterval(() => state && showAge(), 1000);
setTimeout(() => state || showAge(), OLD_AFTER);
setInterval(refreshHours, OVERVIEW_INTERVAL);
setInterval(refreshDetails, DETAILS_INTERVAL);
setInterval(refreshCharts, CHART_INTERVAL);
