// Names of all chips, their registers and fields.

const mostFound = 60;
const mostNames = 100000;
let names = null;  // a promise of [{ text, about, place, choice }]
let found = [];
let at = 0;  // of them

function forgetNames() { names = null; }

async function namesOf(chip) {
  const entries = [{ text: chip, about: "chip", lower: chip.toLowerCase(), place: chipPlace(chip), choice: {} }];
  const add = (text, about, words, choice) =>
    entries.push({ text: `${chip} ${text}`, about, lower: `${chip} ${text} ${words}`.toLowerCase(), place: chipPlace(chip), choice });
  try {
    const fields = await askAll("field.list", { chip });
    const registers = new Set(fields.map(field => field.hw_register));
    for (const reg of registers) add(reg, "register", "", { reg });
    for (const field of fields) {
      add(nameOf(field), `${field.hw_register}${bitsText(field.hw_bits)} ${field.description ?? ""}`,
          `${field.hw_register}.${field.hw_field ?? ""}`, { reg: field.hw_register, field: nameOf(field) });
    }
  } catch {
    // It is not up; its own name is known.
  }
  return entries;
}

async function allNames() {
  const all = [];
  for (const chip of model.chips.keys()) {
    all.push(...await namesOf(chip));
    if (all.length > mostNames) break;
  }
  return all;
}

async function search() {
  const text = byId("search").value.trim().toLowerCase();
  names ??= allNames();
  const all = await names;
  if (byId("search").value.trim().toLowerCase() !== text) return;  // more was typed
  const words = text.split(/\s+/);
  found = text === "" ? [] : all.filter(entry => words.every(word => entry.lower.includes(word))).slice(0, mostFound);
  at = 0;
  showFound(text !== "");
}

function showFound(isSearch) {
  const results = byId("results");
  results.hidden = !isSearch;
  results.replaceChildren(...found.map((entry, i) =>
    make("li", { class: i === at ? "chosen" : null, onmousedown: event => { event.preventDefault(); goTo(entry); } },
         entry.text, " ", make("span", { class: "faint" }, entry.about))));
  if (isSearch && found.length === 0) results.replaceChildren(make("li", { class: "faint" }, "Nothing is called so."));
  results.children[at]?.scrollIntoView({ block: "nearest" });
}

function endSearch() {
  byId("search").value = "";
  byId("search").blur();
  found = [];
  showFound(false);
}

function goTo(entry) {
  endSearch();
  choose(entry.choice);
  if (location.hash === entry.place) render();
  else location.hash = entry.place;
}

function searchKey(event) {
  if (event.key === "Escape") endSearch();
  else if (event.key === "Enter" && found[at]) goTo(found[at]);
  else if (event.key === "ArrowDown" || event.key === "ArrowUp") {
    event.preventDefault();
    at = Math.min(Math.max(at + (event.key === "ArrowDown" ? 1 : -1), 0), Math.max(found.length - 1, 0));
    showFound(found.length > 0);
  }
}
