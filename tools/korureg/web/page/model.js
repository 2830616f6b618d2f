// What is known of the board, and what of it is looked at.

const model = {
  isServerThere: false,
  isAgentThere: true,
  why: "",
  mayWrite: false,
  chips: new Map(),   // by name, as the agent tells of them
  silent: {},         // those that do not answer, and why
  writes: new Map(),  // by chip: [time, count] of the last seconds
  detail: null,       // of the chip that is open
};

const rateSpan = 5000;

function rateOf(chip) {
  const since = performance.now() - rateSpan;
  const recent = (model.writes.get(chip) ?? []).filter(([time]) => time >= since);
  if (recent.length === 0) model.writes.delete(chip);
  else model.writes.set(chip, recent);
  return recent.reduce((sum, [, count]) => sum + count, 0) / (rateSpan / 1000);
}

// "good", "waiting" or "wrong", and the state in a word.
function conditionOf(chip) {
  if (!model.isServerThere || !model.isAgentThere) return ["wrong", "unknown"];
  if (isThere(model.silent[chip.name])) return ["wrong", "no answer"];
  if (chip.state === "up") return ["good", chip.state];
  return [chip.state === "rewriting" ? "waiting" : "wrong", chip.state];
}
const reasonOf = chip => model.silent[chip.name] ?? chip.reason ?? "";

// "#/", "#/chip/NAME", "#/chip/NAME/history" and "#/plots".
function route() {
  const [, view, name, part] = location.hash.split("/");
  if (view === "chip" && name) {
    try {
      return { view: part === "history" ? "history" : "registers", chip: decodeURIComponent(name) };
    } catch {
      return { view: "board" };
    }
  }
  return { view: view === "plots" ? "plots" : "board" };
}
const chipPlace = (chip, part = "") => `#/chip/${encodeURIComponent(chip)}${part}`;

// The registers that have fields, in the order of the map, as the agent's lists have them.
function detailOf(chip, fields, registers, map) {
  const written = new Map(registers.map(each => [each.name, each]));
  const ofRegister = new Map();
  for (const field of fields) {
    if (!ofRegister.has(field.hw_register)) ofRegister.set(field.hw_register, []);
    ofRegister.get(field.hw_register).push(field);
  }
  const before = model.detail?.chip === chip ? model.detail.reads : new Map();
  const reads = new Map();
  const list = [];
  for (const each of map) {
    const own = ofRegister.get(each.name);
    if (!own) continue;
    const known = written.get(each.name);
    own.sort((a, b) => b.hw_bits[0] - a.hw_bits[0]);
    list.push({ ...each, wanted: known?.wanted, written: known?.written, verified: known?.verified ?? 0, fields: own });
    const read = before.get(each.name);
    // What was read before somebody wrote to it is no more.
    if (read && read.written === known?.written) reads.set(each.name, read);
  }
  return { chip, registers: list, map, reads };
}

const readOf = reg => model.detail.reads.get(reg.name);
// Bits that were read otherwise than they were written, or wanted otherwise.
function differing(reg) {
  const read = readOf(reg);
  const isDrifted = isThere(read?.value) && isThere(reg.written);
  const drifted = isDrifted ? ((read.value ^ reg.written) & reg.verified) >>> 0 : 0;
  const waiting = isThere(reg.wanted) && isThere(reg.written) ? (reg.wanted ^ reg.written) >>> 0 : 0;
  return { drifted, waiting };
}
