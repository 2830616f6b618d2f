// What the keys of "korureg top" do.

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cwchar>

#include "korureg/top/View.h"

namespace korureg::top {

namespace {

constexpr int space = ' ';

// As UTF-8.
void append(std::string& text, int key) {
  char bytes[MB_LEN_MAX];
  std::mbstate_t state = {};
  const size_t count = std::wcrtomb(bytes, static_cast<wchar_t>(key), &state);
  if (count != static_cast<size_t>(-1)) text.append(bytes, count);
}

void eraseLast(std::string& text) {
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  if (!text.empty()) text.pop_back();
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : ", ") + line;
  return text;
}

}  // namespace

void View::press(int key) {
  if (key == Key::resized || key == 0) return;
  message_.clear();
  if (isHelp_) {
    isHelp_ = false;
  } else if (isTyping()) {
    typed(key);
  } else if (prompt_.kind != Prompt::Kind::none) {
    confirmed(key == 'y' || key == 'Y');
  } else {
    move(key);
    command(key);
  }
}

void View::move(int key) {
  const size_t count = rows().size();
  const size_t last = count == 0 ? 0 : count - 1;
  if (key == Key::up || key == 'k') chosen_ -= std::min<size_t>(chosen_, 1);
  if (key == Key::down || key == 'j') chosen_ = std::min(chosen_ + 1, last);
  if (key == Key::pageUp) chosen_ -= std::min(chosen_, page_);
  if (key == Key::pageDown) chosen_ = std::min(chosen_ + page_, last);
  if (key == Key::home || key == 'g') chosen_ = 0;
  if (key == Key::end || key == 'G') chosen_ = last;
}

void View::command(int key) {
  switch (key) {
    case Key::enter:
    case Key::right:
      return enter();
    case Key::escape:
    case Key::left:
    case 'q':
      return leave();
    case '/':
      prompt_ = {.kind = Prompt::Kind::filter, .text = filter_};
      return;
    case 's':
      sort_ = sort_ == Sort::byTrouble ? Sort::asListed
              : sort_ == Sort::byName  ? Sort::byTrouble
                                       : Sort::byName;
      return;
    case 'r':
      return read();
    case 'R':
      if (isOpen()) board_.readAll();
      return;
    case 'e':
      return edit();
    case space:
      isFrozen_ = !isFrozen_;
      return;
    case '?':
      isHelp_ = true;
      return;
    default:
      return;
  }
}

void View::enter() {
  const std::vector<Row> rows = this->rows();
  if (isOpen() || chosen_ >= rows.size()) return;
  chosenChip_ = board_.chips()[rows[chosen_].index].name;
  filter_.clear();
  board_.open(chosenChip_);
  chosen_ = first_ = 0;
}

// Back to the chips, on the one that was open; from there out.
void View::leave() {
  if (!filter_.empty()) return filter_.clear();
  if (!isOpen()) {
    isOver_ = true;
    return;
  }
  board_.open("");
  const std::vector<Row> rows = this->rows();
  const auto chip = std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
    return board_.chips()[row.index].name == chosenChip_;
  });
  chosen_ = chip == rows.end() ? 0 : static_cast<size_t>(chip - rows.begin());
  first_ = 0;
}

void View::read() {
  const std::vector<Row> rows = this->rows();
  if (!isOpen() || chosen_ >= rows.size()) return;
  const Register& reg = board_.detail().registers[rows[chosen_].index];
  if (!reg.readChanges) return board_.readBack(std::string(reg.name));
  prompt_ = {.kind = Prompt::Kind::confirmRead,
             .question = "reading register " + reg.name + " changes the chip; read it?",
             .reg = reg.name};
}

void View::edit() {
  const std::vector<Row> rows = this->rows();
  if (!isOpen() || chosen_ >= rows.size()) return;
  if (!rows[chosen_].field) return say("choose a field to be written");
  const AgentField& field = board_.detail().fields[*rows[chosen_].field];
  if (field.isStatus()) return say(field.name() + " can only be read");
  prompt_ = {.kind = Prompt::Kind::edit, .field = field};
}

void View::typed(int key) {
  if (key == Key::escape) {
    if (prompt_.kind == Prompt::Kind::filter) filter_.clear();
    prompt_ = {};
    return;
  }
  if (key == Key::enter) {
    if (isEditing()) return endEdit();
    prompt_ = {};
    return;
  }
  if (key == Key::backspace) eraseLast(prompt_.text);
  if (key >= space && key < Key::up) append(prompt_.text, key);
  if (prompt_.kind == Prompt::Kind::filter) {
    filter_ = prompt_.text;
    chosen_ = first_ = 0;
  }
}

// Asks the agent what it would be, and the user whether it is meant.
void View::endEdit() {
  Prompt edited = std::move(prompt_);
  prompt_ = {};
  if (edited.text.empty()) return;
  const auto lines = board_.plan(edited.field, edited.text);
  if (!lines) return;
  edited.kind = Prompt::Kind::confirmWrite;
  edited.question =
      fmt::format("write {} = {}? {}", edited.field.name(), edited.text,
                  lines->empty() ? std::string("no register changes") : joined(*lines));
  prompt_ = std::move(edited);
}

void View::confirmed(bool isSo) {
  const Prompt asked = std::move(prompt_);
  prompt_ = {};
  if (!isSo) return say("nothing was done");
  if (asked.kind == Prompt::Kind::confirmRead) return board_.readBack(asked.reg);
  board_.write(asked.field, asked.text);
}

}  // namespace korureg::top
