// A register drawn with its bits.

const narrow = matchMedia("(max-width: 60em)");

const fieldAt = (reg, bit) => reg.fields.find(({ hw_bits: [high, low] }) => bit <= high && bit >= low);

// The bits from `high` to `low`: their numbers, the fields that have them, and room for values.
function rulerRows(reg, high, low, columns, cells) {
  const room = () => Array.from({ length: columns - (high - low + 1) }, () => make("td", { class: "bit" }));
  const numbers = make("tr", {}, ...room());
  const fields = make("tr", {}, ...room());
  const written = make("tr", { title: "written" }, ...room());
  const read = make("tr", { title: "read" }, ...room());
  for (let bit = high; bit >= low; --bit) {
    numbers.append(make("th", { scope: "col" }, String(bit)));
    cells.written[bit] = written.appendChild(make("td", { class: "bit number" }));
    cells.read[bit] = read.appendChild(make("td", { class: "bit number" }));
  }
  for (let bit = high; bit >= low;) {
    const field = fieldAt(reg, bit);
    const first = bit;
    while (bit >= low && fieldAt(reg, bit) === field) --bit;
    const text = field ? field.hw_field ?? field.field : "";
    const about = field ? [nameOf(field), field.description].filter(isThere).join(": ") : null;
    const cell = make("td", { colspan: first - bit, title: about, class: field ? "has-field" : null }, text);
    if (field) cell.addEventListener("click", () => choose({ reg: reg.name, field: nameOf(field) }));
    fields.append(cell);
  }
  return [numbers, fields, written, read];
}

// With the cells of its bits, for updateRuler().
function makeRuler(reg) {
  const columns = Math.min(reg.width, narrow.matches ? 16 : 32);
  const cells = { written: [], read: [] };
  const rows = [];
  for (let end = reg.width; end > 0;) {
    const low = Math.floor((end - 1) / columns) * columns;
    rows.push(...rulerRows(reg, end - 1, low, columns, cells));
    end = low;
  }
  return { element: make("table", { class: "ruler" }, ...rows), cells };
}

function updateRuler(cells, reg) {
  const read = readOf(reg)?.value;
  const { drifted, waiting } = differing(reg);
  for (let bit = 0; bit < reg.width; ++bit) {
    setText(cells.written[bit], isThere(reg.written) ? String(bitOf(reg.written, bit)) : "");
    setText(cells.read[bit], isThere(read) ? String(bitOf(read, bit)) : "");
    setClass(cells.written[bit], "other", bitOf(waiting, bit) === 1);
    setClass(cells.read[bit], "other", bitOf(drifted, bit) === 1);
  }
}
