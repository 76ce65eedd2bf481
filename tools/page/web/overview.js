// All that is there: watched streams, hosts and their channels, and the streams of processes.
import { LEVELS, at, badge, fill, list, make, set, tableOf } from "./elements.js";
import { clock, count, ms, plural, rate, span } from "./figures.js";
import { choose, subjectOf, titleOf } from "./subjects.js";

const MOST_OPEN = 64;  // rows; beyond that, what works is folded at first

// What is wrong first.
const sorted = (items, isWrong) => [...items].sort((a, b) => isWrong(b) - isWrong(a));

const levelOf = (state, item) => state.worst.get(subjectOf(item))?.level ?? "ok";
const wrongFirst = (state, items, of) => sorted(items, (one) => levelOf(state, of(one)) !== "ok");

const STREAM_COLUMNS = [["State"], ["Stream", "name"], ["Rate", "number"],
  ["Rate, last hour", "wide"], ["Delay factor", "number wide"], ["RTP jitter", "number wide"],
  ["CC errors", "number"], ["Packets lost", "number wide"]];

function showStreams(state) {
  const section = at("streams");
  section.hidden = state.streams.length === 0;
  if (!section.querySelector("table")) section.append(tableOf(STREAM_COLUMNS));
  const of = (stream) => ({ stream: stream.name });
  fill(section.querySelector("table"), wrongFirst(state, state.streams, of),
    (stream) => stream.name,
    (stream) => [{ level: levelOf(state, of(stream)) },
      { open: () => choose(of(stream)), text: stream.name,
        note: stream.programmes.join(", ") || (stream.name === stream.url ? "" : stream.url) },
      stream.signal ? rate(stream.bitrate_bps) : "no signal",
      { hour: state.hours.get(subjectOf(of(stream))), now: stream.bitrate_bps },
      ms(stream.delay_factor_ms),
      ms(stream.jitter_ms), count(stream.continuity_errors), count(stream.packets_lost)]);
}

// A part that can be folded, with a line that sums it up. Of many, only those are open at first
// that have something to tell.
function card(open, tables) {
  const part = make("details", "host");
  part.open = open;
  const summary = make("summary");
  summary.append(make("span"), make("h3"), make("span", "sum"));
  const columns = make("div", "columns");
  columns.append(...tables);
  part.append(summary, make("p"), columns);
  return part;
}

function fillCard(part, level, title, sum, about) {
  const [badgeOf, name, sumOf] = part.firstChild.children;
  badge(badgeOf, level);
  set(name, title);
  set(sumOf, sum);
  set(part.children[1], about);
}

const CHANNEL_COLUMNS = [["State"], ["Channel", "channel"], ["Address", "mono"],
  ["Rate", "number"], ["Rate, last hour", "wide"]];

function showChannels(state, table, host, channels) {
  const of = ({ direction, channel }) => ({ pid: host.pid, direction, channel });
  fill(table, wrongFirst(state, channels, of), (channel) => channel.channel,
    (channel) => [{ level: levelOf(state, of(channel)) },
      { open: () => choose(of(channel)), text: `${channel.direction} ${channel.channel}` },
      channel.endpoint, channel.socket_open ? rate(channel.bitrate_bps) : "no socket",
      { hour: state.hours.get(subjectOf(of(channel))), now: channel.bitrate_bps }]);
}

function showHosts(state) {
  const incomplete = at("incomplete");
  incomplete.hidden = !state.incomplete_because;
  set(incomplete, `There may be more hosts: ${state.incomplete_because}.`);
  at("none").hidden = state.hosts.length > 0;
  const worst = (host) => state.problems.find((problem) =>
    problem.pid === host.pid && !problem.input)?.level;
  const many = state.hosts.reduce((sum, host) => sum + host.channels.length, 0) > MOST_OPEN;
  list(at("host-list"), sorted(state.hosts, (host) => Boolean(worst(host))),
    (host) => `${host.pid} ${host.started}`,
    (host) => card(!many || worst(host), [tableOf(CHANNEL_COLUMNS), tableOf(CHANNEL_COLUMNS)]),
    (part, host) => {
      const total = (channels) => rate(channels.reduce((sum, one) => sum + one.bitrate_bps, 0));
      const sides = ["send", "receive"].map((direction) =>
        host.channels.filter((channel) => channel.direction === direction));
      const sums = sides.filter((side) => side.length).map((side) =>
        `${side.length} ${side[0].direction}, ${total(side)}`);
      fillCard(part, worst(host) ?? "ok", titleOf(host),
        `${sums.join("; ") || "none of its channels is started"} · ${host.command_line}`,
        `user ${host.user} · running for ${span(state.time - host.started)}` +
        (host.replaced ? " · its table has been replaced by a later host's" : ""));
      sides.forEach((side, i) => {
        const frame = part.lastChild.children[i];
        frame.hidden = side.length === 0;
        showChannels(state, frame.firstChild, host, side);
      });
    });
}

function showEnded(state) {
  at("ended").hidden = state.ended.length === 0;
  list(at("ended").querySelector("ul"), state.ended,
    (host) => `${host.pid} ${host.started} ${host.ended}`,
    (host) => {
      const item = make("li");
      item.append(make("time", "", clock(host.ended)),
        make("span", "", `${titleOf(host)}: ${host.command_line}`));
      return item;
    });
}

// The inputs of a stream, their paths, and its outputs, as lines of one table. Where there is one
// of each and the output does what it should, they share a line.
function linesOf(stream, number) {
  const [output] = stream.outputs;
  const single = stream.inputs.length === 1 && stream.outputs.length === 1 && output.works &&
    output.datagrams_dropped + output.send_failures === 0;
  const name = single ? `${stream.kind} to ${output.url}` : `${stream.kind} ${stream.name}`;
  const onAir = stream.inputs.some((input) => input.state === "on air");
  const lines = [];
  for (const input of stream.inputs) {
    const works = input.state === "on air" || input.state === "standby";
    lines.push({ level: works ? "ok" : onAir ? "warning" : "alarm", state: input.state,
      text: `from ${input.url}`, note: !single && stream.name === input.url ? stream.kind : name,
      rate: rate(input.bitrate_bps), errors: input.continuity_errors, lost: input.repair?.lost,
      reordered: input.repair?.reordered, restored: input.repair?.restored,
      dropped: input.datagrams_dropped });
    for (const path of input.paths)
      lines.push({ state: "path", text: path.url, lost: path.lost,
        note: `${count(path.saved)} saved by others, ${ms(path.skew_ms)} behind` });
  }
  for (const output of single ? [] : stream.outputs)
    lines.push({ level: output.works ? "ok" : "alarm", state: output.works ? "works" : "down",
      text: `to ${output.url}`, note: "",
      dropped: output.datagrams_dropped + output.send_failures });
  return lines.map((line, i) => ({ ...line, key: `${number} ${i} ${name}` }));
}

const LINE_COLUMNS = [["State"], ["Input or output", "name"], ["Rate", "number"],
  ["CC errors", "number"], ["Lost", "number wide"], ["Reordered", "number wide"],
  ["Restored", "number wide"], ["Dropped", "number wide"]];

function showProcesses(state) {
  at("processes").hidden = state.processes.length === 0;
  const all = state.processes.map((process) => {
    const lines = sorted(process.streams.map(linesOf),
      (part) => part.some((line) => (line.level ?? "ok") !== "ok")).flat();
    const worst = ["alarm", "warning", "ok"].find((level) =>
      lines.some((line) => line.level === level)) ?? "ok";
    return { process, lines, worst };
  });
  const many = all.reduce((sum, one) => sum + one.lines.length, 0) > MOST_OPEN;
  list(at("process-list"), sorted(all, ({ worst }) => worst !== "ok"),
    ({ process }) => `${process.pid} ${process.started}`,
    ({ worst }) => card(!many || worst !== "ok", [tableOf(LINE_COLUMNS)]),
    (part, { process, lines, worst }) => {
      fillCard(part, worst, titleOf(process), plural(process.streams.length, "stream") +
        (process.streams_left_out ? ` and ${process.streams_left_out} more` : "") +
        ` · ${process.command_line}`, `user ${process.user}` +
        (state.time - process.updated > 5 ? ` · ${span(state.time - process.updated)} old` : ""));
      fill(part.querySelector("table"), lines, (line) => line.key, (line) => [
        line.level ? { level: line.level, text: `${LEVELS[line.level][0]} ${line.state}` }
          : line.state,
        { text: line.text, note: line.note }, line.rate ?? "",
        ...[line.errors, line.lost, line.reordered, line.restored, line.dropped].map(
          (value) => value === undefined ? "" : count(value))]);
    });
}

export function showOverview(state) {
  showStreams(state);
  showHosts(state);
  showProcesses(state);
  showEnded(state);
}
