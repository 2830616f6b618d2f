// What was written to a chip, the newest first.

let records = null;  // { chip, list, why }
let historyTimer = 0;

const whoOf = record => (record.by ? `${record.by.process}[${record.by.pid}] of user ${record.by.uid}` : "the agent") +
  (["request", "program"].includes(record.why) ? "" : ` (${record.why})`);
const tookText = record => record.took_ns ? ` in ${Math.round(record.took_ns / 1000)} µs` : "";
const outcomeText = record => record.outcome + tookText(record) + (record.reason ? `: ${record.reason}` : "");

function recordRow(record) {
  const change = record.field
    ? `${record.register}.${record.field}: ${hex(record.was, 1)} → ${hex(record.value, 1)}` : "";
  const sent = record.hardware ? `${record.hardware} = ${hex(record.sent, 1)}` : "";
  const lost = record.lost ? ` (${record.lost} records before it could not be kept)` : "";
  return make("tr", {}, make("td", { class: "number" }, record.time.replace("T", " ").slice(0, 23)),
    make("td", {}, change), make("td", { class: "number" }, sent),
    make("td", { class: record.outcome === "failed" ? "wrong" : "" }, outcomeText(record) + lost),
    make("td", { class: "faint" }, whoOf(record)));
}

async function loadHistory() {
  historyTimer = 0;
  const { view, chip } = route();
  if (view !== "history") return;
  try {
    records = { chip, list: await resultOf("/history", { chip }) };
  } catch (error) {
    records = { chip, list: [], why: error.message };
  }
  render();
}

// Soon, and not with every single write.
function historyChanged() {
  if (route().view === "history" && !historyTimer) historyTimer = setTimeout(loadHistory, 300);
}

function renderHistory(view) {
  const { chip } = route();
  if (records?.chip !== chip) {
    historyChanged();
    return view.replaceChildren(make("p", { class: "faint" }, "…"));
  }
  if (view.firstChild?.records === records) return;
  const headings = ["time", "field", "register", "outcome", "by"].map(text => make("th", {}, text));
  const table = make("table", { class: "history" }, make("thead", {}, make("tr", {}, ...headings)),
                     make("tbody", {}, ...records.list.map(recordRow)));
  const empty = records.list.length === 0 ? make("p", { class: "faint" }, records.why ?? "Nothing was written yet.") : null;
  const whole = make("div", {}, make("p", { class: "tools" }, make("a", { href: chipPlace(chip) }, "registers")), table,
                     ...(empty ? [empty] : []));
  whole.records = records;
  view.replaceChildren(whole);
}
