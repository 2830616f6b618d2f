// One chip: its registers with their fields.

let shown = null;  // { chip, map, isNarrow, parts: by register }

function fieldRow(reg, field) {
  const cell = (name, ...children) => make("td", { class: name }, ...children);
  const value = name => make("td", { class: "number", "data-name": name });
  const row = {
    wanted: value("wanted"), written: value("written"), read: value("read"),
    choice: { reg: reg.name, field: nameOf(field) },
  };
  const values = Object.entries(field.values ?? {}).map(([name, value]) => `${value} = ${name}`).join(", ");
  const isStatus = field.kind === "status";
  const kind = field.kind && field.kind !== "stored" ? make("span", { class: "faint" }, ` ${field.kind}`) : null;
  row.element = make("tr", { "data-field": nameOf(field), onclick: () => choose(row.choice) },
    cell("number faint", bitsText(field.hw_bits)), cell("name", nameOf(field), kind), row.wanted, row.written, row.read,
    cell("about faint", [field.description, values].filter(text => text).join(" · ")),
    cell("acts", isStatus ? null : make("button", { onclick: () => edit(field), class: "edit" }, "edit"), " ",
         make("button", { onclick: () => startPlot(shown.chip, field), class: "draw" }, "plot")));
  return row;
}

function registerPart(reg) {
  const value = name => make("span", { class: "number" }, name);
  const part = { reg, wanted: value(""), written: value(""), read: value(""), rows: reg.fields.map(f => fieldRow(reg, f)) };
  const ruler = makeRuler(reg);
  part.cells = ruler.cells;
  const pair = (name, element) => make("span", {}, make("span", { class: "faint" }, name + " "), element);
  part.header = make("header", { onclick: () => choose({ reg: reg.name }) },
    make("h2", {}, reg.name), make("span", { class: "number faint" }, hex(reg.address, 8)),
    make("span", { class: "faint" }, `${reg.width} bits, ${reg.type}`),
    reg.read_changes ? make("span", { class: "waiting" }, "reading it changes the chip") : null,
    make("span", { class: "values" }, pair("wanted", part.wanted), pair("written", part.written),
         pair("read", part.read), make("button", { onclick: () => readRegister(reg.name), disabled: !reg.readable,
                                                   title: reg.why ?? null }, "read")));
  const headings = ["bits", "field", "wanted", "written", "read", "", ""].map(text => make("th", {}, text));
  part.element = make("section", { class: "register", "data-register": reg.name }, part.header, ruler.element,
    make("table", { class: "fields" }, make("thead", {}, make("tr", {}, ...headings)),
         make("tbody", {}, ...part.rows.map(row => row.element))));
  return part;
}

function updateField(row, field, reg, differs) {
  const read = readOf(reg)?.value;
  const overlaps = bits => extract(bits, field.hw_bits) !== 0;
  setText(row.wanted, meant(field, field.wanted));
  setText(row.written, meant(field, field.written));
  setText(row.read, isThere(read) ? meant(field, extract(read, field.hw_bits)) : "–");
  setClass(row.written, "waiting", overlaps(differs.waiting));
  setClass(row.read, "wrong", overlaps(differs.drifted));
  setClass(row.element, "chosen", chosen.field === row.choice.field && chosen.reg === reg.name);
}

function updateRegister(part, reg) {
  const read = readOf(reg);
  const differs = differing(reg);
  part.reg = reg;
  setText(part.wanted, shownHex(reg.wanted, reg.width));
  setText(part.written, shownHex(reg.written, reg.width));
  setText(part.read, read?.failure ?? shownHex(read?.value, reg.width));
  setClass(part.written, "waiting", differs.waiting !== 0);
  setClass(part.read, "wrong", differs.drifted !== 0 || isThere(read?.failure));
  setClass(part.element, "differs", differs.drifted !== 0 || differs.waiting !== 0);
  setClass(part.header, "chosen", chosen.reg === reg.name && !chosen.field);
  updateRuler(part.cells, reg);
  reg.fields.forEach((field, i) => updateField(part.rows[i], field, reg, differs));
}

function chipHeading(name) {
  const chip = model.chips.get(name);
  if (!chip) return [make("span", { class: "wrong" }, "gone")];
  const [condition, state] = conditionOf(chip);
  return [make("strong", { class: condition, id: "state" }, state), make("span", { class: "faint" }, chip.transport ?? ""),
          make("span", { class: "number" }, `${rateOf(name).toFixed(1)} writes/s`),
          make("span", { class: condition === "wrong" ? "wrong" : "" }, reasonOf(chip))];
}

// Builds it anew only when it has become another one.
function renderRegisters(view) {
  const { chip } = route();
  const detail = model.detail?.chip === chip ? model.detail : null;
  const isSame = shown && detail && shown.chip === chip && shown.map === detail.map &&
    shown.isNarrow === narrow.matches && view.contains(shown.heading);
  if (!isSame) {
    shown = { chip, map: detail?.map, isNarrow: narrow.matches, heading: make("span", { class: "tools" }), parts: new Map() };
    for (const reg of detail?.registers ?? []) shown.parts.set(reg.name, registerPart(reg));
    view.replaceChildren(
      make("div", { class: "tools" }, shown.heading, make("button", { onclick: readAll, id: "read-all" }, "read all"),
           make("a", { href: chipPlace(chip, "/history") }, "history")),
      ...[...shown.parts.values()].map(part => part.element));
  }
  shown.heading.replaceChildren(...chipHeading(chip));
  for (const reg of detail?.registers ?? []) {
    const part = shown.parts.get(reg.name);
    if (part) updateRegister(part, reg);
  }
}

async function readHardware(reg, isConfirmed) {
  const { chip, reads } = model.detail;
  try {
    const { value } = await ask("hw.read", { chip, register: reg.name, ...(isConfirmed ? { confirmed: true } : {}) });
    reads.set(reg.name, { value, written: reg.written });
  } catch (error) {
    reads.set(reg.name, { failure: error.message, written: reg.written });
  }
  // (The detail may have been loaded anew meanwhile.)
  if (model.detail?.chip === chip) model.detail.reads.set(reg.name, reads.get(reg.name));
  render();
}

const registerCalled = name => model.detail?.registers.find(reg => reg.name === name);

async function readRegister(name) {
  const reg = registerCalled(name);
  if (!reg) return;
  if (!reg.readable) return say(reg.why ?? `${name} cannot be read`);
  if (!reg.read_changes) return readHardware(reg, false);
  if (!model.mayWrite) return say(`Reading ${name} changes the chip, and korureg web was started without --write`);
  if (await confirmed("Read", `Reading ${name} changes the chip.`)) readHardware(reg, true);
}

async function readAll() {
  const { chip } = route();
  for (const { name } of model.detail?.registers ?? []) {
    const reg = registerCalled(name);
    if (route().chip !== chip || !reg) return;
    if (reg.readable && !reg.read_changes) await readHardware(reg, false);
  }
}
