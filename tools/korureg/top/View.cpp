#include "korureg/top/View.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "Orb/Printable.h"
#include "korureg/RegisterRuler.h"
#include "korureg/top/Cells.h"

namespace korureg::top {

namespace {

constexpr size_t leastList = 6;  // lines that a ruler leaves to the list

// Columns of the lists; those of names grow with the screen.
constexpr size_t narrowest = 80;
constexpr size_t chipName = 16;
constexpr size_t state = 10;
constexpr size_t number = 7;
constexpr size_t registerName = 24;
constexpr size_t value = 14;

const char* const helpText[] = {
    "up, down, PgUp, PgDn   move            Home, End   to the first and the last line",
    "Enter, right           open the chip   Escape, left, q   back, and out",
    "/                      show only what has that in its name",
    "s                      sort: as listed, by name, what differs first",
    "r                      read the chosen register from the chip",
    "R                      read all registers whose reading changes nothing",
    "e                      write the chosen field; shows first what would be sent",
    "space                  freeze the view, and go on",
    "?                      this page",
    "",
    "WANTED is what the register is to hold, WRITTEN what was sent, READ what it held",
    "when it was read. Yellow: not written yet. Red: it was read otherwise than written.",
};

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), lower);
  return text;
}

Tint tintOf(const Chip& chip) {
  if (chip.state == "up") return Tint::good;
  return chip.state == "rewriting" ? Tint::waiting : Tint::wrong;
}

Tint tintOf(const Register& reg) {
  if (reg.drifted() || !reg.failure.empty()) return Tint::wrong;
  return reg.waits() ? Tint::waiting : Tint::plain;
}

size_t trouble(Tint tint) { return tint == Tint::wrong ? 0 : tint == Tint::waiting ? 1 : 2; }

}  // namespace

bool View::passes(const std::string& name) const {
  return filter_.empty() || lowered(name).find(lowered(filter_)) != std::string::npos;
}

std::vector<View::Row> View::rows() const { return isOpen() ? registerRows() : chipRows(); }

std::vector<View::Row> View::chipRows() const {
  const auto& chips = board_.chips();
  std::vector<Row> rows;
  for (size_t i = 0; i < chips.size(); ++i) {
    if (passes(chips[i].name)) rows.push_back({i, {}});
  }
  if (sort_ == Sort::byTrouble) {
    std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
      return trouble(tintOf(chips[a.index])) < trouble(tintOf(chips[b.index]));
    });
  }
  return rows;
}

// Each register, and its fields below it; of one that does not pass by its own name, those that do.
std::vector<View::Row> View::registerRows() const {
  const Detail& detail = board_.detail();
  std::vector<size_t> order(detail.registers.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  const auto& registers = detail.registers;
  if (sort_ == Sort::byName) {
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return registers[a].name < registers[b].name; });
  } else if (sort_ == Sort::byTrouble) {
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      return trouble(tintOf(registers[a])) < trouble(tintOf(registers[b]));
    });
  }
  std::vector<Row> rows;
  for (const size_t i : order) {
    const bool isWhole = passes(registers[i].name);
    std::vector<Row> fields;
    for (const size_t field : registers[i].fields) {
      if (isWhole || passes(detail.fields[field].name())) fields.push_back({i, field});
    }
    if (!isWhole && fields.empty()) continue;
    rows.push_back({i, {}});
    rows.insert(rows.end(), fields.begin(), fields.end());
  }
  return rows;
}

std::vector<Line> View::lines(size_t height, size_t columns, Board::Clock::time_point now) {
  if (isHelp_) return help();
  spare_ = (std::max(columns, narrowest) - narrowest) / 3;
  const std::vector<Row> rows = this->rows();
  chosen_ = std::min(chosen_, rows.empty() ? 0 : rows.size() - 1);
  std::vector<Line> below = ruler();
  constexpr size_t around = 3;  // title, heading, and the line at the bottom
  if (height < around + leastList + below.size()) below.clear();
  page_ = std::max<size_t>(1, height > around + below.size() ? height - around - below.size() : 1);
  if (chosen_ < first_) first_ = chosen_;
  if (chosen_ >= first_ + page_) first_ = chosen_ - page_ + 1;

  std::vector<Line> lines = {title(now), heading()};
  for (size_t i = first_; i < first_ + page_; ++i) {
    Line line = i < rows.size() ? rowLine(rows[i], now) : Line();
    line.isChosen = i == chosen_ && i < rows.size();
    lines.push_back(std::move(line));
  }
  for (Line& line : below) lines.push_back(std::move(line));
  lines.push_back(bottom());
  return lines;
}

Line View::title(Board::Clock::time_point now) const {
  Line line;
  if (isOpen()) {
    line.pieces.push_back({Orb::printable(board_.opened()), Tint::title});
    if (const Chip* chip = board_.chip(board_.opened())) {
      line.pieces.push_back({fmt::format("  {}", chip->state), tintOf(*chip)});
      line.pieces.push_back({fmt::format("  {}  {:.1f} writes/s", Orb::printable(chip->transport),
                                         board_.rate(chip->name, now))});
      if (!chip->reason.empty()) {
        line.pieces.push_back({fmt::format("  {}", Orb::printable(chip->reason)), Tint::waiting});
      }
    } else {
      line.pieces.push_back({"  gone", Tint::wrong});
    }
  } else {
    size_t up = 0;
    for (const Chip& chip : board_.chips()) up += chip.state == "up" ? 1 : 0;
    const size_t all = board_.chips().size();
    line.pieces.push_back({fmt::format("{} chips", all), Tint::title});
    line.pieces.push_back({fmt::format(", {} up", up), up == all ? Tint::good : Tint::waiting});
  }
  if (!board_.isConnected()) line.pieces.push_back({"  no agent", Tint::wrong});
  if (isFrozen_) line.pieces.push_back({"  frozen", Tint::waiting});
  if (!filter_.empty())
    line.pieces.push_back({fmt::format("  /{}", Orb::printable(filter_)), Tint::faint});
  if (sort_ == Sort::byName) line.pieces.push_back({"  by name", Tint::faint});
  if (sort_ == Sort::byTrouble) line.pieces.push_back({"  what differs first", Tint::faint});
  return line;
}

Line View::heading() const {
  if (isOpen()) {
    return {{{cell("REGISTER .FIELD", registerName + spare_) + cell("WANTED", value) +
                  cell("WRITTEN", value) + cell("READ", value) + "ADDRESS BITS",
              Tint::heading}}};
  }
  return {{{cell("CHIP", chipName + spare_) + cell("STATE", state) + right("WRITE/S", number + 1) +
                right("FIELDS", number) + right("FLIGHT", number) + right("FAILED", number) +
                right("DRIFT", number) + right("RESETS", number) + "  REASON",
            Tint::heading}}};
}

Line View::rowLine(const Row& row, Board::Clock::time_point now) const {
  if (!isOpen()) return chipLine(board_.chips()[row.index], now);
  const Register& reg = board_.detail().registers[row.index];
  return row.field ? fieldLine(reg, board_.detail().fields[*row.field]) : registerLine(reg);
}

Line View::chipLine(const Chip& chip, Board::Clock::time_point now) const {
  const auto count = [](uint64_t shown) { return right(fmt::format("{}", shown), number); };
  return {{{cell(Orb::printable(chip.name), chipName + spare_)},
           {cell(chip.state, state), tintOf(chip)},
           {right(fmt::format("{:.1f}", board_.rate(chip.name, now)), number + 1)},
           {count(chip.fields) + count(chip.inFlight)},
           {count(chip.failedWrites), chip.failedWrites != 0 ? Tint::wrong : Tint::plain},
           {count(chip.drifted), chip.drifted != 0 ? Tint::waiting : Tint::plain},
           {count(chip.resets), chip.resets != 0 ? Tint::waiting : Tint::plain},
           {fmt::format("  {}", Orb::printable(chip.reason))}}};
}

Line View::registerLine(const Register& reg) const {
  const auto text = [&](const std::optional<uint32_t>& shown) {
    return cell(shown ? fmt::format("0x{:0{}x}", *shown, (reg.width + 3) / 4) : "-", value);
  };
  const Tint tint = tintOf(reg);
  Line line = {{{cell(Orb::printable(reg.name), registerName + spare_), Tint::title},
                {text(reg.wanted)},
                {text(reg.written), reg.waits() ? Tint::waiting : Tint::plain},
                {text(reg.read), reg.drifted() ? Tint::wrong : Tint::plain},
                {fmt::format("0x{:x}", reg.address)}}};
  if (!reg.readable) line.pieces.push_back({"  cannot be read", Tint::faint});
  if (reg.readChanges) line.pieces.push_back({"  reading changes it", Tint::faint});
  if (!reg.failure.empty())
    line.pieces.push_back({fmt::format("  {}", Orb::printable(reg.failure)), tint});
  return line;
}

Line View::fieldLine(const Register& reg, const AgentField& field) const {
  std::optional<uint32_t> read;
  if (reg.read) read = field.in(*reg.read);
  const auto text = [&](const std::optional<uint32_t>& shown) {
    return cell(Orb::printable(field.shown(shown, false)), value);
  };
  const bool waits = field.wanted != field.written;
  const uint32_t bits = static_cast<uint32_t>(field.hardwareBits.mask());
  const bool differs = reg.drifted() && ((*reg.read ^ *reg.written) & reg.verified & bits) != 0;
  const std::string name = field.isStatus() ? fmt::format(".{}", field.field) : field.name();
  Line line = {{{cell(fmt::format("  {}", Orb::printable(name)), registerName + spare_)},
                {text(field.wanted)},
                {text(field.written), waits ? Tint::waiting : Tint::plain},
                {text(read), differs ? Tint::wrong : Tint::plain},
                {bitsText(field.hardwareBits), Tint::faint}}};
  if (field.kind != "stored") line.pieces.push_back({fmt::format(" {}", field.kind), Tint::faint});
  if (!field.meaning.description.empty()) {
    line.pieces.push_back(
        {fmt::format("  {}", Orb::printable(field.meaning.description)), Tint::faint});
  }
  return line;
}

// Of the chosen register, with what it holds as far as is known.
std::vector<Line> View::ruler() const {
  const std::vector<Row> rows = this->rows();
  if (!isOpen() || chosen_ >= rows.size()) return {};
  const Register& reg = board_.detail().registers[rows[chosen_].index];
  std::vector<RulerField> fields;
  for (const size_t i : reg.fields) {
    const AgentField& field = board_.detail().fields[i];
    fields.push_back(
        {Orb::printable(field.hardwareField), field.hardwareBits.high, field.hardwareBits.low});
  }
  const auto held = reg.read ? reg.read : reg.written ? reg.written : reg.wanted;
  std::vector<Line> lines;
  for (std::string& text : registerRuler(reg.width, std::move(fields), held)) {
    lines.push_back({{{std::move(text)}}});
  }
  return lines;
}

Line View::bottom() const {
  switch (prompt_.kind) {
    case Prompt::Kind::filter:
      return {{{fmt::format("/{}", Orb::printable(prompt_.text))}}};
    case Prompt::Kind::edit:
      return {{{fmt::format("{} = {}", Orb::printable(prompt_.field.name()),
                            Orb::printable(prompt_.text))}}};
    case Prompt::Kind::confirmWrite:
    case Prompt::Kind::confirmRead:
      return {{{Orb::printable(prompt_.question) + " (y/n)", Tint::waiting}}};
    default:
      break;
  }
  if (!message_.empty()) return {{{Orb::printable(message_)}}};
  return {{{isOpen() ? "? help  / filter  s sort  r read  R read all  e edit  space freeze  q back"
                     : "? help  / filter  s sort  Enter open  space freeze  q quit",
            Tint::faint}}};
}

std::vector<Line> View::help() const {
  std::vector<Line> lines = {{{{"korureg top", Tint::title}}}, {}};
  for (const char* text : helpText) lines.push_back({{{text}}});
  return lines;
}

}  // namespace korureg::top
