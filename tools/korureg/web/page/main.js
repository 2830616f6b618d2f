// Puts what is known on the page, at most once a frame.

const views = { board: renderBoard, registers: renderRegisters, history: renderHistory, plots: renderPlots };

function places() {
  const { view, chip } = route();
  const link = (href, text, isHere) => make("a", { href, "aria-current": isHere ? "page" : null }, text);
  const all = [link("#/", "Board", view === "board")];
  if (chip) all.push(link(chipPlace(chip), chip, view === "registers"));
  if (view === "history") all.push(link(chipPlace(chip, "/history"), "history", true));
  if (plots.length > 0 || view === "plots") all.push(link("#/plots", `Plots (${plots.length})`, view === "plots"));
  return all;
}

let isDue = false;
function render() {
  if (isDue) return;
  isDue = true;
  requestAnimationFrame(() => {
    isDue = false;
    renderNow();
  });
}

function renderNow() {
  const { view, chip } = route();
  const banner = byId("banner");
  banner.hidden = model.isServerThere && model.isAgentThere;
  setText(banner, model.why);
  const head = [view, chip, plots.length].join(" ");
  if (byId("places").head !== head) byId("places").replaceChildren(...places());
  byId("places").head = head;
  document.title = chip ? `${chip} – board` : "Board";
  views[view](byId("view"));
}

addEventListener("hashchange", () => {
  if (route().view === "board") chosen = {};
  window.scrollTo(0, 0);
  loadDetail();
  render();
  reveal();
});
addEventListener("keydown", pressed);
narrow.addEventListener("change", render);
byId("search").addEventListener("input", search);
byId("search").addEventListener("blur", () => showFound(false));
byId("keys").addEventListener("click", help);
// Rates go down by themselves.
setInterval(() => model.writes.size > 0 && render(), 1000);
listen();
render();
