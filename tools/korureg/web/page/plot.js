// Fields over time. The server reads them; here they are drawn.

const plots = [];  // { place, field, every, points, last, why, timer, ... }
const mostDrawn = 20000;
const rates = [[100, "0.1 s"], [500, "0.5 s"], [1000, "1 s"], [5000, "5 s"], [60000, "1 min"]];
const svg = (tag, attributes) => {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  return element;
};
const plotWidth = 1000;
const plotHeight = 200;

function startPlot(chip, field) {
  const place = { chip, register: field.register, field: field.field };
  if (!plots.some(plot => plot.place.chip === chip && nameOf(plot.place) === nameOf(place))) {
    plots.push({ place, field, every: 1000, points: [], last: 0, why: "", timer: 0 });
    pollPlot(plots.at(-1));
  }
  location.hash = "#/plots";
}

async function pollPlot(plot) {
  try {
    const { points, last, why } = await resultOf("/plot", { ...plot.place, every: plot.every, after: plot.last });
    // (The server has begun anew.)
    if (last < plot.last) plot.points = [];
    plot.last = last;
    plot.why = why;
    plot.points.push(...points);
    plot.points.splice(0, plot.points.length - mostDrawn);
  } catch (error) {
    plot.why = error.message;
  }
  if (!plots.includes(plot)) return;
  if (route().view === "plots") updatePlot(plot);
  plot.timer = setTimeout(pollPlot, Math.max(plot.every, 250), plot);
}

function endPlot(plot) {
  clearTimeout(plot.timer);
  plots.splice(plots.indexOf(plot), 1);
  posted("/forget", plot.place);
  render();
}

async function saveCsv(plot) {
  const response = await posted("/plot.csv", plot.place);
  const place = URL.createObjectURL(await response.blob());
  const name = `${plot.place.chip}-${nameOf(plot.place)}`.replace(/[^\w.-]/g, "_");
  make("a", { href: place, download: `${name}.csv` }).click();
  setTimeout(() => URL.revokeObjectURL(place), 60000);
}

// Lines through the points; a reading that failed is a gap. Of many in one place, the outermost.
function pathOf(points, lowest, highest) {
  const [first, last] = [points[0].time, points.at(-1).time];
  const x = time => last === first ? plotWidth : (time - first) / (last - first) * plotWidth;
  const y = value => plotHeight * (0.97 - 0.94 * (highest === lowest ? 0.5 : (value - lowest) / (highest - lowest)));
  const step = Math.max(1, Math.ceil(points.length / plotWidth));
  let path = "";
  let isGap = true;
  for (let i = 0; i < points.length; i += step) {
    const group = points.slice(i, i + step).filter(point => point.value !== null);
    if (group.length < Math.min(step, points.length - i)) isGap = true;
    const low = group.reduce((a, b) => b.value < a.value ? b : a, group[0]);
    const high = group.reduce((a, b) => b.value > a.value ? b : a, group[0]);
    for (const point of low === high ? [low] : [low, high]) {
      if (!point) continue;
      path += `${isGap ? "M" : "L"}${x(point.time).toFixed(1)} ${y(point.value).toFixed(1)}`;
      isGap = false;
    }
  }
  return path;
}

const timeText = time => new Date(time).toTimeString().slice(0, 8);

function updatePlot(plot) {
  if (!plot.element) return;
  const points = plot.points.map(([time, raw, number]) => ({ time, value: number ?? raw }));
  const values = points.filter(point => point.value !== null).map(point => point.value);
  setText(plot.trouble, plot.why);
  if (values.length === 0) return plot.path.setAttribute("d", "");
  const lowest = values.reduce((a, b) => Math.min(a, b));
  const highest = values.reduce((a, b) => Math.max(a, b));
  const unit = plot.field.unit ? ` ${plot.field.unit}` : "";
  plot.path.setAttribute("d", pathOf(points, lowest, highest));
  setText(plot.now, meant(plot.field, plot.points.findLast(([, raw]) => raw !== null)[1]));
  setText(plot.range, `${lowest}${unit} to ${highest}${unit}, ${points.length} readings`);
  setText(plot.from, timeText(points[0].time));
  setText(plot.to, timeText(points.at(-1).time));
}

function plotElement(plot) {
  const span = name => make("span", { class: name });
  Object.assign(plot, { now: span("number value"), range: span("faint"), from: span("faint"), to: span("faint"),
                        trouble: span("wrong"), path: svg("path", {}) });
  const rate = make("select", { "aria-label": "Time between readings",
                                onchange: event => plot.every = Number(event.target.value) },
    ...rates.map(([every, text]) => make("option", { value: every, selected: every === plot.every }, text)));
  const area = svg("svg", { viewBox: `0 0 ${plotWidth} ${plotHeight}`, preserveAspectRatio: "none" });
  for (const part of [0.03, 0.5, 0.97]) {
    area.append(svg("line", { x1: 0, x2: plotWidth, y1: plotHeight * part, y2: plotHeight * part }));
  }
  area.append(plot.path);
  plot.element = make("section", { class: "plot" },
    make("div", { class: "tools" }, make("h2", {}, `${plot.place.chip} ${nameOf(plot.place)}`), plot.now, plot.range,
         plot.trouble, rate, make("button", { onclick: () => saveCsv(plot) }, "CSV"),
         make("button", { onclick: () => endPlot(plot) }, "end")),
    area, make("div", { class: "edges" }, plot.from, plot.to));
  updatePlot(plot);
  return plot.element;
}

function renderPlots(view) {
  if (plots.length === 0) {
    return view.replaceChildren(make("p", { class: "faint" }, "No field is drawn; choose one and press p."));
  }
  const isSame = view.children.length === plots.length && plots.every((plot, i) => view.children[i] === plot.element);
  if (!isSame) view.replaceChildren(...plots.map(plotElement));
}
