// Elements and tables, which keep their identity while they show the same thing, so that focus and
// selection stay. Texts from streams and processes only ever become text nodes.

export const at = (id) => document.getElementById(id);

export const LEVELS = { alarm: "▲ Alarm", warning: "◆ Warning", ok: "● Good",
  cleared: "● Cleared", host: "○ Host" };

export function set(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function make(name, className, text) {
  const element = document.createElement(name);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

export function button(className, action) {
  const element = make("button", className);
  element.type = "button";
  element.addEventListener("click", action);
  return element;
}

export function badge(element, level, text = LEVELS[level]) {
  element.className = `badge ${level === "cleared" ? "ok" : level}`;
  set(element, text);
}

// One child for each item, in their order; `build` makes one, `update` fills it. Keys differ.
export function list(parent, items, key, build, update = () => {}) {
  const focused = document.activeElement;
  const old = new Map([...parent.children].map((child) => [child.dataset.key, child]));
  const keys = items.map((item) => String(key(item)));
  const kept = new Set(keys);
  for (const [name, child] of old) if (!kept.has(name)) child.remove();
  items.forEach((item, i) => {
    const child = old.get(keys[i]) ?? build(item);
    child.dataset.key = keys[i];
    if (parent.children[i] !== child) parent.insertBefore(child, parent.children[i] ?? null);
    update(child, item);
  });
  // An element that is moved loses the focus.
  if (document.activeElement !== focused && parent.contains(focused))
    focused.focus({ preventScroll: true });
}

// Columns are [title, class].
export function tableOf(columns) {
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

// One row for each item, by `cellsOf(item)`. A cell is a text or a number, or has
//   level   a badge, with `text` or the level's own
//   open    what a click on `text` does
//   hour    the last hour of a rate, if it is known, to draw with the rate `now`
//   text    with a `note` below it
export function fill(table, items, key, cellsOf) {
  list(table.tBodies[0], items, key,
    () => {
      const row = make("tr");
      for (const head of table.tHead.rows[0].cells) row.append(make("td", head.className));
      return row;
    },
    (row, item) => cellsOf(item).forEach((value, i) => put(row.cells[i], value)));
}

function put(cell, value) {
  if (value === null || typeof value !== "object") return set(cell, String(value ?? "–"));
  if ("hour" in value) return sparkline(cell, value.hour, value.now);
  if (!cell.firstChild) {
    cell.append(value.open ? button("link", value.open) : make("span"));
    if (value.note !== undefined) cell.append(make("small"));
  }
  if (value.level) badge(cell.firstChild, value.level, value.text);
  else set(cell.firstChild, value.text);
  if (value.note !== undefined) set(cell.lastChild, value.note);
}

function sparkline(cell, hour, now) {
  if (!cell.firstChild) {
    const svg = document.createElementNS("http://www.w3.org/2000/svg", "svg");
    const base = document.createElementNS(svg.namespaceURI, "line");
    for (const [element, name, value] of [[svg, "class", "hour"], [svg, "viewBox", "0 0 60 20"],
      [svg, "preserveAspectRatio", "none"], [svg, "aria-hidden", "true"],
      [base, "x1", 0], [base, "x2", 60], [base, "y1", 19.5], [base, "y2", 19.5]])
      element.setAttribute(name, value);
    svg.append(base, document.createElementNS(svg.namespaceURI, "path"));
    cell.append(svg);
  }
  const rates = hour ? [...hour.bitrate_bps, now] : [];
  const top = Math.max(1, ...rates.filter((value) => value !== null));
  let path = "", pen = "M";
  rates.forEach((value, i) => {
    if (value === null) pen = "M";
    else {
      path += `${pen}${(i * 60 / (rates.length - 1)).toFixed(1)} ` +
        (19 - 18 * value / top).toFixed(1);
      pen = "L";
    }
  });
  cell.firstChild.lastChild.setAttribute("d", path);
}
