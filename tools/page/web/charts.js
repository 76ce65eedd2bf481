// The last hour of what is chosen, as charts, or as a table where there are none.
import { at, fill, set, tableOf } from "./elements.js";
import { clock, count, date, ms, rate } from "./figures.js";

let charts = {};

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

// Of a channel, only the rate is known.
export function showHour(hour, isStream) {
  const haveCharts = typeof Dygraph !== "undefined";
  at("no-charts").hidden = haveCharts;
  at("charts").hidden = !haveCharts;
  at("stand-in").hidden = haveCharts;
  if (!haveCharts) return showStandIn(hour);
  chart("rate-chart", rows(hour, "bitrate_bps", 1e-6));
  if (!isStream) return;
  chart("jitter-chart", rows(hour, "jitter_ms", 1));
  chart("error-chart", rows(hour, "errors", 1), { stepPlot: true, fillGraph: true });
}

export function clearCharts() {
  for (const one of Object.values(charts)) one.destroy();
  charts = {};
}

function showStandIn(hour) {
  const steps = 120, rows = [];
  for (let i = hour.errors.length - 1; i >= Math.max(0, hour.errors.length - steps); i -= 6)
    if (hour.bitrate_bps[i] !== null)
      rows.push([clock(hour.begin + i * hour.interval_seconds), rate(hour.bitrate_bps[i]),
        ms(hour.jitter_ms[i]), count(hour.errors[i])]);
  const frame = tableOf([["Time"], ["Rate"], ["Jitter"], ["Errors"]]);
  fill(frame.firstChild, rows, ([time]) => time, (cells) => cells);
  at("stand-in").replaceChildren(frame.firstChild);
}
