// Dialogs: a field is written after what would be sent was shown.

// Shows it until it is closed; the promise has what it was closed with, "" when it was left.
function dialog(...children) {
  const element = byId("dialog");
  element.replaceChildren(...children);
  element.returnValue = "";
  element.showModal();
  return new Promise(done => element.addEventListener("close", () => done(element.returnValue), { once: true }));
}
const closeWith = value => () => byId("dialog").close(value);

function buttons(word) {
  return make("div", { class: "buttons" }, make("button", { onclick: closeWith("") }, "Cancel"),
              make("button", { onclick: closeWith("yes"), autofocus: true, id: "confirm" }, word));
}

const confirmed = async (word, text) => await dialog(make("p", {}, text), buttons(word)) === "yes";

function askForValue(field) {
  const input = make("input", { list: "named", autofocus: true, id: "value", autocomplete: "off", spellcheck: "false" });
  input.addEventListener("keydown", event => {
    if (event.key !== "Enter") return;
    event.preventDefault();
    byId("dialog").close(input.value.trim());
  });
  const named = Object.keys(field.values ?? {}).map(name => make("option", { value: name }));
  const example = named.length > 0 ? "a name, or a number" : isScaled(field) ? `a number${field.unit ? " in " + field.unit : ""}, or raw as 0x1f`
                                                                             : "a number";
  return dialog(make("h2", {}, `${nameOf(field)} of ${shown.chip}`), make("p", { class: "faint" }, field.description ?? ""),
    make("p", {}, `It is ${meant(field, field.wanted)}. It is to be (${example}):`), input,
    make("datalist", { id: "named" }, ...named),
    make("div", { class: "buttons" }, make("button", { onclick: closeWith("") }, "Cancel"),
         make("button", { onclick: () => byId("dialog").close(input.value.trim()) }, "Show what is sent")));
}

function planOf(plan) {
  const row = cells => make("tr", {}, ...cells.map(cell => make("td", { class: "number" }, cell)));
  const fields = plan.fields.map(({ register, field, was, was_text, value, text }) =>
    row([`${register}.${field}`, was_text ?? hex(was, 1), "→", text ?? hex(value, 1)]));
  const registers = plan.registers.map(({ name, from, to }) => {
    const width = registerCalled(name)?.width ?? 1;
    return row([name, shownHex(from, width), "→", hex(to, width)]);
  });
  return [make("table", {}, ...fields),
          make("p", {}, registers.length > 0 ? "These registers are sent:" : "No register is sent: they hold that already."),
          make("table", { id: "plan" }, ...registers)];
}

async function edit(field) {
  if (!model.mayWrite) return say("korureg web was started without --write");
  if (field.kind === "status") return say(`${nameOf(field)} is read only`);
  const { chip } = shown;
  const text = await askForValue(field);
  if (text === "") return;
  const write = { chip, fields: [{ register: field.register, field: field.field, text }] };
  try {
    const plan = await ask("fields.write", { ...write, dry_run: true });
    const isMeant = await dialog(make("h2", {}, `Write to ${chip}?`), ...planOf(plan), buttons("Write")) === "yes";
    if (!isMeant) return say("nothing was done");
    const done = await ask("fields.write", write);
    say(`${nameOf(field)} was written; ${done.registers.map(({ name, to }) => `${name} is ${hex(to, 1)}`).join(", ") || "no register was sent"}`);
  } catch (error) {
    say(error.message);
  }
  loadDetail();
}

const keysHelp = [["/", "search all names"], ["j, k, arrows", "move"], ["Enter", "open the chip, edit the field"],
  ["r", "read the chosen register"], ["R", "read all registers whose reading changes nothing"],
  ["e", "edit the chosen field"], ["d", "to the next register that differs"], ["p", "plot the chosen field"],
  ["h", "history of the chip, and back"], ["P", "plots"], ["b, Escape", "back"], ["?", "these keys"]];

function help() {
  dialog(make("h2", {}, "Keys"),
    make("table", {}, ...keysHelp.map(([key, text]) => make("tr", {}, make("td", {}, make("kbd", {}, key)), make("td", {}, text)))),
    make("div", { class: "buttons" }, make("button", { onclick: closeWith(""), autofocus: true }, "Close")));
}
