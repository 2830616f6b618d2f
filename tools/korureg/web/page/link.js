// What is asked of the server, and what it tells.

const token = new URLSearchParams(location.search).get("token") ?? "";

const posted = (path, body) => fetch(path, {
  method: "POST",
  headers: { "X-Koru-Token": token, "Content-Type": "application/json" },
  body: JSON.stringify(body),
});

// Throws an Error with the reason.
async function answerTo(path, body) {
  const response = await posted(path, body);
  const text = await response.text();
  let answer;
  try {
    answer = JSON.parse(text);
  } catch {
    throw new Error(text || `the server answers with ${response.status}`);
  }
  if (answer.ok !== true) throw new Error(answer.error?.message ?? "it cannot be done");
  return answer;
}
const resultOf = async (path, body) => (await answerTo(path, body)).result;
const ask = (op, what = {}) => resultOf("/ask", { op, ...what });

// A list of any length.
async function askAll(op, what = {}) {
  const all = [];
  for (let from = undefined; ;) {
    const answer = await answerTo("/ask", { op, ...what, ...(from === undefined ? {} : { from }) });
    all.push(...answer.result);
    if (answer.next === undefined) return all;
    from = answer.next;
  }
}

async function loadChips() {
  const chips = await askAll("chip.list");
  model.chips = new Map(chips.map(chip => [chip.name, chip]));
}

// Loads the open chip, whole or without its map; what comes meanwhile is loaded behind it.
let isLoading = false;
let isStale = false;
let isMapStale = true;
async function loadDetail() {
  const { chip } = route();
  if (!chip) return;
  isStale = true;
  if (isLoading) return;
  isLoading = true;
  while (isStale && route().chip) {
    isStale = false;
    const begun = performance.now();
    const name = route().chip;
    try {
      const hasMap = !isMapStale && model.detail?.chip === name;
      isMapStale = false;
      const fields = await askAll("field.list", { chip: name });
      const registers = await askAll("chip.registers", { chip: name });
      const map = hasMap ? model.detail.map : await askAll("hw.list", { chip: name });
      if (route().chip !== name) isStale = true;
      else model.detail = detailOf(name, fields, registers, map);
    } catch (error) {
      isMapStale = true;
      if (route().chip === name && model.detail?.chip !== name) model.detail = null;
      if (model.isAgentThere) say(error.message);
    }
    render();
    // What takes long is not had so often.
    const took = performance.now() - begun;
    await new Promise(done => setTimeout(done, Math.max(150, 5 * took)));
  }
  isLoading = false;
}

async function reload() {
  isMapStale = true;
  forgetNames();
  try {
    await loadChips();
  } catch (error) {
    if (model.isAgentThere) say(error.message);
  }
  render();
  loadDetail();
}

function troubleText(trouble) {
  return trouble.event === "drift"
    ? `${trouble.chip}: register ${trouble.register} held ${hex(trouble.found, 1)}, not ${hex(trouble.written, 1)}`
    : `${trouble.chip}: ${trouble.reason ?? trouble.event}`;
}

function hear(news) {
  if (news.silent) model.silent = news.silent;
  if (isThere(news.agent)) {
    model.isAgentThere = news.agent;
    model.why = news.why;
    model.mayWrite = news.write;
    if (news.agent) reload();
  }
  if (news.missed) reload();
  const now = performance.now();
  for (const [chip, count] of Object.entries(news.writes ?? {})) {
    if (!model.writes.has(chip)) model.writes.set(chip, []);
    model.writes.get(chip).push([now, count]);
  }
  for (const chip of news.chips ?? []) {
    if (chip.state === "gone") model.chips.delete(chip.name);
    else model.chips.set(chip.name, chip);
    if (chip.name === route().chip) isMapStale = true;
    forgetNames();
  }
  for (const trouble of news.troubles ?? []) say(troubleText(trouble));
  const open = route().chip;
  if (open && (news.writes?.[open] || news.chips?.some(chip => chip.name === open) ||
               news.troubles?.some(trouble => trouble.chip === open))) {
    loadDetail();
    historyChanged();
  }
  render();
}

// Listens for ever.
async function listen() {
  for (;;) {
    try {
      const response = await posted("/events", {});
      if (!response.ok) throw new Error(await response.text());
      model.isServerThere = true;
      const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
      let rest = "";
      for (;;) {
        const { value, done } = await reader.read();
        if (done) break;
        const parts = (rest + value).split("\n\n");
        rest = parts.pop();
        for (const part of parts) if (part.startsWith("data: ")) hear(JSON.parse(part.slice(6)));
      }
      model.why = "korureg web has gone";
    } catch (error) {
      model.why = error instanceof TypeError ? "korureg web has gone" : error.message;
    }
    model.isServerThere = false;
    render();
    await new Promise(done => setTimeout(done, 1000));
  }
}
