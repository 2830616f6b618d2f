#include "korureg/FieldWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentFields.h"
#include "korureg/Assignment.h"
#include "korureg/Output.h"
#include "korureg/Suggest.h"

namespace korureg {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::ordered_json;
using Names = std::pair<std::string, std::string>;  // of a register and its field

constexpr double everySecond = 1;

[[noreturn]] void throwUnknown(const FieldName& name, const std::vector<AgentField>& known) {
  std::vector<std::string> registers;
  std::vector<std::string> fields;  // of that register
  for (const AgentField& field : known) {
    registers.push_back(field.reg);
    if (field.reg == name.reg) fields.push_back(field.field);
  }
  registers.erase(std::unique(registers.begin(), registers.end()), registers.end());
  const auto nearest = [](const std::string& wanted, const std::vector<std::string>& names) {
    return suggestion(wanted, {names.begin(), names.end()});
  };
  throw UsageError(
      fmt::format("there is no field {}.{}{}", name.reg, name.field,
                  fields.empty() ? nearest(name.reg, registers) : nearest(name.field, fields)));
}

class FieldWatch {
 public:
  FieldWatch(const AgentArguments& arguments, const Options& options)
      : arguments_(arguments), json_(options.json), client_(arguments.agent) {}

  [[noreturn]] void run();

 private:
  void chooseFields();
  void poll();
  void tell(const ordered_json& event);
  void tellField(const AgentField& field, const std::string& value, ordered_json line);
  void print(const std::string& text, ordered_json line);
  // Null for a field that is not to be shown.
  const AgentField* fieldOf(const ordered_json& event) const;

  const AgentArguments& arguments_;
  const bool json_;
  AgentClient client_;
  std::map<Names, AgentField> fields_;  // that are shown
  std::vector<Names> order_;
  bool isPolling_ = false;  // there are status fields
  std::map<Names, std::string> shown_;
};

// All fields, or those that were named. Of the status fields, those that were named, and all with
// --every whose reading changes nothing.
void FieldWatch::chooseFields() {
  const std::vector<AgentField> known = fieldsOf(client_, arguments_.chip);
  const auto add = [&](const AgentField& field) {
    const Names names(field.reg, field.field);
    if (fields_.emplace(names, field).second) order_.push_back(names);
    isPolling_ = isPolling_ || field.isStatus();
  };
  for (const std::string& text : arguments_.names) {
    const FieldName name = parseFieldName(text);
    const auto found = std::find_if(known.begin(), known.end(), [&](const AgentField& field) {
      return field.reg == name.reg && field.field == name.field;
    });
    if (found == known.end()) throwUnknown(name, known);
    add(*found);
  }
  if (!arguments_.names.empty()) return;
  for (const AgentField& field : known) {
    if (!field.isStatus() || (arguments_.every > 0 && !field.readChanges)) add(field);
  }
}

void FieldWatch::run() {
  client_.ask({{"op", "subscribe"}, {"chip", arguments_.chip}});
  chooseFields();
  for (const Names& names : order_) {
    const AgentField& field = fields_.at(names);
    if (field.isStatus() || !field.wanted) continue;
    tellField(field, field.shown(*field.wanted, arguments_.raw), {{"value", *field.wanted}});
  }
  const double every = arguments_.every > 0 ? arguments_.every : everySecond;
  const auto pause =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(every));
  for (auto next = Clock::now(); true;) {
    std::optional<std::chrono::milliseconds> left;
    if (isPolling_) {
      if (Clock::now() >= next) {
        poll();
        next = Clock::now() + pause;
      }
      left = std::chrono::ceil<std::chrono::milliseconds>(
          std::max(next - Clock::now(), Clock::duration::zero()));
    }
    if (const auto event = client_.event(left)) tell(*event);
  }
}

void FieldWatch::poll() {
  LiveFields live(client_, arguments_.chip);
  for (const Names& names : order_) {
    const AgentField& field = fields_.at(names);
    if (!field.isStatus()) continue;
    const auto value = live.value(field);
    if (!value) continue;
    const std::string text = field.shown(*value, arguments_.raw);
    const auto known = shown_.find(names);
    if (known == shown_.end() || known->second != text) {
      tellField(field, text, {{"value", *value}});
    }
  }
}

const AgentField* FieldWatch::fieldOf(const ordered_json& event) const {
  const auto found = fields_.find({textAt(event, "register"), textAt(event, "field")});
  return found == fields_.end() ? nullptr : &found->second;
}

void FieldWatch::tell(const ordered_json& event) {
  const std::string kind = textAt(event, "event");
  if (kind == "field") {
    const AgentField* field = fieldOf(event);
    if (!field) return;
    const std::string value = valueText(event, {.raw = arguments_.raw});
    if (!flagAt(event, "pulse")) return tellField(*field, value, event);
    return print(fmt::format("{}  {} was sent", field->name(), value), event);
  }
  const auto found = event.find("chip");
  const bool isAboutChip = kind == "chip" && found != event.end() && found->is_object();
  if (isAboutChip) {
    const std::string reason = textAt(*found, "reason");
    return print(
        fmt::format("chip  {}{}{}", textAt(*found, "state"), reason.empty() ? "" : ": ", reason),
        event);
  }
  if (kind == "drift") {
    const auto number = [&](const char* key) { return hex(numberAt(event, key).value_or(0)); };
    return print(fmt::format("drift  {}: {} was written, {} was found", textAt(event, "register"),
                             number("written"), number("found")),
                 event);
  }
  print(fmt::format("{}  {}", kind, textAt(event, "reason")), event);
}

void FieldWatch::tellField(const AgentField& field, const std::string& value, ordered_json line) {
  std::string& before = shown_[{field.reg, field.field}];
  const std::string text =
      fmt::format("{}  {}{}", field.name(), before.empty() ? "" : before + " -> ", value);
  before = value;
  if (!line.contains("register")) {
    line["register"] = field.reg;
    line["field"] = field.field;
  }
  print(text, std::move(line));
}

void FieldWatch::print(const std::string& text, ordered_json line) {
  if (json_) {
    line["time"] = timeNow();
    printJson(line, false);
  } else {
    printLine(fmt::format("{}  {}", timeNow(), printable(text)));
  }
  if (!outputIsComplete()) throw Failure("cannot write to standard output");
}

}  // namespace

int watchFields(const AgentArguments& arguments, const Options& options) {
  FieldWatch(arguments, options).run();
}

}  // namespace korureg
