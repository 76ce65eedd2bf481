// The details of a stream or a channel.
import { clearCharts, showHour } from "./charts.js";
import { at, fill, list, make, set, tableOf } from "./elements.js";
import { count, date, moment, ms, rate, span } from "./figures.js";
import { eventsOf, lasting } from "./problems.js";
import { ask } from "./server.js";
import { subjectOf } from "./subjects.js";

const INTERVAL = 2000;  // ms
const CHART_INTERVAL = 5000;

let chosen = null;  // the query of what the dialog shows
let known = null;  // the last state

function facts(pairs) {
  list(at("facts"), pairs, ([name]) => name,
    ([name]) => {
      const pair = make("div");
      pair.append(make("dt", "", name), make("dd"));
      return pair;
    },
    (pair, [, value]) => set(pair.lastChild, value));
}

export function showDetails(state) {
  known = state;
  if (!chosen) return;
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
        ...(channel.asked_bitrate_bps === null ? []
          : [["Requested rate", rate(channel.asked_bitrate_bps)]]),
        ["Encapsulation", channel.mode], ["Socket", channel.socket_open ? "open" : "not open"]]);
  }
  const level = problems[0]?.level ?? (gone ? "warning" : "ok");
  verdict.className = `verdict ${level}`;
  set(verdict, problems.map((problem) => lasting(state.time, problem)).join("\n") ||
    (gone ? "It is not there any more." : "No alarm."));
}

function table(title, columns) {
  const part = make("details");
  part.open = true;
  part.append(make("summary", "", title), tableOf(columns));
  return part;
}

const CHECK_COLUMNS = [["State"], ["Check"], ["No.", "wide"], ["Errors", "number"],
  ["First", "wide"], ["Last"], ["Last error", "wide"]];
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
    ["MDI: media loss rate", `${count(found.mdi.media_loss_rate)} packets/s`],
    ["MDI: largest delay factor", ms(found.mdi.delay_factor_max_ms)],
    ["Packets lost", count(found.mdi.packets_lost)],
    ["Between datagrams", gaps ? `${ms(gaps.p50)} (median), at most ${ms(gaps.max)}` : "–"],
    ["Encapsulation", found.encapsulation ?? "–"],
    ...(rtp ? [["RTP jitter", ms(rtp.jitter_ms)], ["RTP lost", count(rtp.lost)],
      ["RTP reordered", count(rtp.reordered)], ["RTP duplicates", count(rtp.duplicates)]] : []),
    ["Datagram size", range(found.datagram_bytes_min, found.datagram_bytes_max, " bytes")],
    ["TTL", range(found.ttl_min, found.ttl_max, "")],
    ["Dropped by this machine", count(found.datagrams_dropped)],
    ["Time without signal", span(found.seconds_without_signal)],
    ["Senders", found.sources.map((source) => source.address).join(", ") || "–"],
    ["Programmes", found.programmes.map((programme) => programme.name || programme.number)
      .join(", ") || "–"]];
}

function checkRows(found) {
  return Object.entries(found.checks)
    .sort(([, a], [, b]) => b.alarm - a.alarm || (b.errors > 0) - (a.errors > 0))
    .map(([name, check]) => [name, { level: check.alarm ? "alarm" : "ok" }, sentence(name),
      check.number, count(check.errors), moment(check.first), moment(check.last), check.detail]);
}

// Of a stream; all that is known of a channel is in the state.
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
    const past = eventsOf(name).map((event) =>
      [event.number, date(event.time).toLocaleString("sv-SE"), { level: event.kind }, event.text]);
    const parts = at("stream-details");
    if (!parts.firstChild)
      parts.append(table("Checks (numbers of ETSI TR 101 290)", CHECK_COLUMNS),
        table("PIDs", PID_COLUMNS), table("Events of this stream", EVENT_COLUMNS));
    [checks, pids, past].forEach((rows, i) =>
      fill(parts.children[i].querySelector("table"), rows, ([key]) => key,
        ([, ...cells]) => cells));
  } catch {
    // The next time will do.
  }
}

async function refreshCharts() {
  if (!chosen) return;
  const subject = chosen;
  try {
    const hour = await ask(`history?${subject}`);
    if (chosen === subject && hour.bitrate_bps.length > 0)
      showHour(hour, new URLSearchParams(subject).has("stream"));
  } catch {
    // The next time will do.
  }
}

function followHash() {
  const subject = location.hash.slice(1);
  if (subject === (chosen ?? "")) return;
  chosen = subject || null;
  clearCharts();
  at("stream-details").replaceChildren();
  at("facts").replaceChildren();
  if (!chosen) return at("details").close();
  if (!at("details").open) at("details").showModal();
  at("details").scrollTop = 0;
  if (known) showDetails(known);
  refreshDetails();
  refreshCharts();
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
  clearCharts();
  refreshCharts();
});
followHash();
setInterval(refreshDetails, INTERVAL);
setInterval(refreshCharts, CHART_INTERVAL);
