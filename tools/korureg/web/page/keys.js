// What is chosen, and what keys do with it.

let chosen = {};  // { chip } on the board; { reg, field } of a chip

function choose(choice) {
  chosen = choice;
  render();
}

// All that can be chosen, in its order.
function choices() {
  const { view } = route();
  if (view === "board") return [...model.chips.keys()].map(chip => ({ chip }));
  if (view !== "registers" || !shown) return [];
  return [...shown.parts.values()].flatMap(part => [{ reg: part.reg.name }, ...part.rows.map(row => row.choice)]);
}
const isChosen = choice => choice.chip === chosen.chip && choice.reg === chosen.reg && choice.field === chosen.field;

function reveal() {
  requestAnimationFrame(() => document.querySelector("main .chosen")?.scrollIntoView({ block: "nearest" }));
}

function move(by) {
  const all = choices();
  if (all.length === 0) return;
  const present = all.findIndex(isChosen);
  choose(all[present < 0 ? 0 : Math.min(Math.max(present + by, 0), all.length - 1)]);
  reveal();
}

function nextDifference() {
  const registers = model.detail?.registers ?? [];
  const present = registers.findIndex(reg => reg.name === chosen.reg);
  const rest = [...registers.slice(present + 1), ...registers.slice(0, present + 1)];
  const other = rest.find(reg => Object.values(differing(reg)).some(bits => bits !== 0));
  if (!other) return say("nothing differs");
  choose({ reg: other.name });
  reveal();
}

const chosenField = () => registerCalled(chosen.reg)?.fields.find(field => nameOf(field) === chosen.field);
const onField = act => {
  const field = chosenField();
  return field ? act(field) : say("choose a field first");
};
function back() {
  const { view, chip } = route();
  location.hash = view === "history" ? chipPlace(chip) : "#/";
}
function enter() {
  if (route().view === "board" && chosen.chip) location.hash = chipPlace(chosen.chip);
  else if (chosenField()) edit(chosenField());
}
function toHistory() {
  const { view, chip } = route();
  if (chip) location.hash = chipPlace(chip, view === "history" ? "" : "/history");
}

const actions = {
  "/": () => byId("search").focus(), "?": help, j: () => move(1), k: () => move(-1), ArrowDown: () => move(1),
  ArrowUp: () => move(-1), Enter: enter, r: () => chosen.reg && readRegister(chosen.reg), R: readAll,
  e: () => onField(edit), d: nextDifference, p: () => onField(field => startPlot(shown.chip, field)), h: toHistory,
  P: () => location.hash = "#/plots", b: back, Escape: back,
};

function pressed(event) {
  if (event.target === byId("search")) return searchKey(event);
  if (byId("dialog").open || event.ctrlKey || event.altKey || event.metaKey) return;
  if (["INPUT", "SELECT"].includes(event.target.tagName)) return;
  // A button or link that has the focus takes its own key.
  if (event.key === "Enter" && ["BUTTON", "A"].includes(event.target.tagName)) return;
  const action = actions[event.key];
  if (!action) return;
  event.preventDefault();
  action();
}
