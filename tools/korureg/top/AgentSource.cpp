#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "korureg/AgentAnswer.h"
#include "korureg/Output.h"
#include "korureg/top/Source.h"

namespace korureg::top {

namespace {

using nlohmann::ordered_json;

uint64_t countAt(const ordered_json& entry, const char* key) {
  return numberAt(entry, key).value_or(0);
}

std::optional<uint32_t> valueAt(const ordered_json& entry, const char* key) {
  const auto value = numberAt(entry, key);
  return value ? std::optional(static_cast<uint32_t>(*value)) : std::nullopt;
}

Chip chipOf(const ordered_json& entry) {
  return {.name = textAt(entry, "name"),
          .state = textAt(entry, "state"),
          .reason = textAt(entry, "reason"),
          .transport = textAt(entry, "transport"),
          .fields = countAt(entry, "fields"),
          .inFlight = countAt(entry, "in_flight"),
          .failedWrites = countAt(entry, "failed_writes"),
          .drifted = countAt(entry, "drifted"),
          .resets = countAt(entry, "resets"),
          .rewrites = countAt(entry, "rewrites")};
}

Register registerOf(const ordered_json& entry) {
  Register reg;
  reg.name = textAt(entry, "name");
  reg.address = countAt(entry, "address");
  reg.width = std::clamp(valueAt(entry, "width").value_or(32), 1u, 32u);
  reg.wanted = valueAt(entry, "wanted");
  reg.written = valueAt(entry, "written");
  reg.verified = valueAt(entry, "verified").value_or(0);
  reg.readable = !entry.contains("readable") || flagAt(entry, "readable");
  reg.readChanges = flagAt(entry, "read_changes");
  return reg;
}

class AgentSource : public Source {
 public:
  explicit AgentSource(const AgentOptions& options) : client_(options) {
    client_.ask({{"op", "subscribe"}});
  }

  std::vector<Chip> chips() override {
    std::vector<Chip> chips;
    for (const auto& entry : listIn(client_.ask({{"op", "chip.list"}}))) {
      chips.push_back(chipOf(entry));
    }
    return chips;
  }

  Detail detail(const std::string& chip) override;

  int descriptor() const override { return client_.descriptor(); }
  std::optional<Event> event() override;

  uint32_t read(const std::string& chip, const Register& reg) override {
    return static_cast<uint32_t>(
        valueIn(client_.ask({{"op", "hw.read"}, {"chip", chip}, {"register", reg.name}})));
  }
  std::vector<std::string> plan(const std::string& chip, const AgentField& field,
                                const std::string& text) override;
  void write(const std::string& chip, const AgentField& field, const std::string& text) override {
    client_.ask(writeRequest(chip, field, text));
  }

 private:
  ordered_json ask(const char* op, const std::string& chip) {
    return listIn(client_.ask({{"op", op}, {"chip", chip}}));
  }
  static ordered_json writeRequest(const std::string& chip, const AgentField& field,
                                   const std::string& text) {
    const ordered_json one = {{"register", field.reg}, {"field", field.field}, {"text", text}};
    return {{"op", "fields.write"}, {"chip", chip}, {"fields", {one}}};
  }

  // All registers of the chip's map, which stay for as long as the chip does.
  const std::vector<Register>& mapOf(const std::string& chip);

  AgentClient client_;
  std::map<std::string, std::vector<Register>> maps_;
};

const std::vector<Register>& AgentSource::mapOf(const std::string& chip) {
  const auto known = maps_.find(chip);
  if (known != maps_.end()) return known->second;
  std::vector<Register> registers;
  for (const auto& entry : ask("hw.list", chip)) registers.push_back(registerOf(entry));
  return maps_[chip] = std::move(registers);
}

// The registers that have fields, in the order of the map.
Detail AgentSource::detail(const std::string& chip) {
  Detail detail;
  try {
    detail.fields = fieldsOf(client_, chip);
    std::map<std::string, std::vector<size_t>> fieldsOfRegister;
    for (size_t i = 0; i < detail.fields.size(); ++i) {
      fieldsOfRegister[detail.fields[i].hardwareRegister].push_back(i);
    }
    std::map<std::string, Register> written;
    for (const auto& entry : ask("chip.registers", chip)) {
      written.emplace(textAt(entry, "name"), registerOf(entry));
    }
    for (const Register& each : mapOf(chip)) {
      const auto fields = fieldsOfRegister.find(each.name);
      if (fields == fieldsOfRegister.end()) continue;
      Register reg = each;
      if (const auto known = written.find(reg.name); known != written.end()) {
        reg.wanted = known->second.wanted;
        reg.written = known->second.written;
        reg.verified = known->second.verified;
      }
      reg.fields = fields->second;
      detail.registers.push_back(std::move(reg));
    }
  } catch (const Refusal&) {
    return {};  // (its state says why)
  } catch (const UsageError&) {
    return {};
  }
  return detail;
}

std::optional<Event> AgentSource::event() {
  const auto heard = client_.event(std::chrono::milliseconds(0));
  if (!heard) return std::nullopt;
  const std::string kind = textAt(*heard, "event");
  if (kind == "field") return Event{Event::What::field, textAt(*heard, "chip")};
  if (kind == "chip") {
    const auto chip = heard->find("chip");
    const bool isNamed = chip != heard->end() && chip->is_object();
    // One that is described otherwise, or whose map is, goes before it comes again.
    if (isNamed && textAt(*chip, "state") == "gone") maps_.erase(textAt(*chip, "name"));
    return Event{Event::What::chip, isNamed ? textAt(*chip, "name") : ""};
  }
  const std::string chip = textAt(*heard, "chip");
  const std::string what =
      kind == "drift" ? fmt::format("register '{}' held {}, not {}", textAt(*heard, "register"),
                                    hex(countAt(*heard, "found")), hex(countAt(*heard, "written")))
                      : textAt(*heard, "reason");
  return Event{Event::What::trouble, chip, fmt::format("{}: {}", chip, what)};
}

std::vector<std::string> AgentSource::plan(const std::string& chip, const AgentField& field,
                                           const std::string& text) {
  ordered_json request = writeRequest(chip, field, text);
  request["dry_run"] = true;
  const ordered_json answer = client_.ask(request);
  std::vector<std::string> lines;
  for (const auto& reg : listAt(answer, "registers")) {
    lines.push_back(fmt::format("{} {} -> {}", textAt(reg, "name"),
                                numberAt(reg, "from") ? hex(countAt(reg, "from")) : "-",
                                hex(countAt(reg, "to"))));
  }
  return lines;
}

}  // namespace

std::unique_ptr<Source> agentSource(const AgentOptions& options) {
  return std::make_unique<AgentSource>(options);
}

}  // namespace korureg::top
