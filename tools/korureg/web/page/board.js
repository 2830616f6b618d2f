// All chips, a card each.

const figures = [["writes/s", chip => rateOf(chip.name).toFixed(1)], ["fields", chip => chip.fields],
                 ["in flight", chip => chip.in_flight], ["failed", chip => chip.failed_writes, true],
                 ["drifted", chip => chip.drifted, true], ["resets", chip => chip.resets, true]];

function chipCard(chip) {
  const [condition, state] = conditionOf(chip);
  const reason = reasonOf(chip);
  const numbers = figures.map(([name, of, isTrouble]) => {
    const value = String(of(chip) ?? 0);
    return make("div", {}, make("dt", { class: "faint" }, name),
                make("dd", { class: isTrouble && value !== "0" ? "number wrong" : "number" }, value));
  });
  const card = make("article", { class: `chip ${condition}`, "data-chip": chip.name },
    make("header", {}, make("h2", {}, make("a", { href: chipPlace(chip.name) }, chip.name)),
         make("strong", { class: condition }, state)),
    make("p", { class: "faint" }, chip.transport ?? ""),
    reason ? make("p", { class: condition === "wrong" ? "wrong" : "" }, reason) : null,
    make("dl", {}, ...numbers));
  card.addEventListener("click", () => location.hash = chipPlace(chip.name));
  setClass(card, "chosen", chosen.chip === chip.name);
  return card;
}

function renderBoard(view) {
  const chips = [...model.chips.values()];
  if (chips.length === 0) return view.replaceChildren(make("p", { class: "faint" }, "There are no chips."));
  view.replaceChildren(make("div", { class: "chips" }, ...chips.map(chipCard)));
}
