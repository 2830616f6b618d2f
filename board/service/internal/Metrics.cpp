#include "board/service/internal/Metrics.h"

#include <fmt/format.h>

#include <array>
#include <iterator>
#include <map>
#include <string_view>
#include <vector>

#include "KoruRegFile/ShadowSms.h"
#include "Orb/Printable.h"
#include "board/chips/AccessCounts.h"
#include "board/devices/TransportKind.h"
#include "board/service/internal/Requests.h"

namespace Board {

namespace {

constexpr double second = 1e9;  // in nanoseconds

// What stands between the quotes of a label.
std::string labelText(std::string_view text) {
  std::string escaped;
  for (const char c : Orb::printable(text)) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

// What there is to say of one chip.
struct Figures {
  std::string label;
  std::string transport;
  Health health;
  const AccessCounts* counts = nullptr;  // null for a chip that was refused
  size_t differing = 0;
};

size_t differingFields(const BoardKeeper& keeper, const std::string& chip) {
  const auto shadowSm = keeper.shadowSm(chip);
  const Chip* const described = keeper.description(chip);
  if (!shadowSm || !described) return 0;
  const auto wanted = shadowSm->shadowFieldsConfig();
  const auto written = shadowSm->shadowFieldsStatus();
  size_t count = 0;
  for (const Field& field : described->fields) {
    if (wanted->field(field.key()).value() != written->field(field.key()).value()) ++count;
  }
  return count;
}

std::vector<Figures> figuresOf(const BoardKeeper& keeper) {
  std::vector<Figures> all;
  for (const std::string& chip : keeper.chipNames()) {
    const Chip* const described = keeper.description(chip);
    all.push_back({fmt::format("chip=\"{}\"", labelText(chip)),
                   described ? described->transport.kind->name : "", keeper.health(chip),
                   keeper.accesses(chip), differingFields(keeper, chip)});
  }
  return all;
}

class Text {
 public:
  void family(const char* name, const char* type, const char* help) {
    put("# TYPE {0} {1}\n# HELP {0} {2}\n", name, type, help);
  }
  template <class... Arguments>
  void put(fmt::format_string<Arguments...> form, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(text_), form, std::forward<Arguments>(arguments)...);
  }
  std::string ended() {
    put("# EOF\n");
    return fmt::to_string(text_);
  }

 private:
  fmt::memory_buffer text_;
};

void putStates(Text& text, const std::vector<Figures>& chips) {
  constexpr std::array states = {ChipState::up, ChipState::rewriting, ChipState::failed,
                                 ChipState::refused};
  std::map<ChipState, size_t> counts;
  for (const Figures& chip : chips) ++counts[chip.health.state];
  text.family("koru_chips", "gauge", "Chips of the board, by state.");
  for (const ChipState state : states) {
    text.put("koru_chips{{state=\"{}\"}} {}\n", stateName(state), counts[state]);
  }
  text.family("koru_chip_up", "gauge", "Whether everything that was asked for has been written.");
  for (const Figures& chip : chips) {
    text.put("koru_chip_up{{{}}} {}\n", chip.label, chip.health.state == ChipState::up ? 1 : 0);
  }
}

// A figure of each chip that is described.
struct Row {
  const char* name;
  const char* type;
  const char* help;
  uint64_t (*of)(const Figures& chip);
};
constexpr Row rows[] = {
    {"koru_register_reads", "counter", "Reads of registers.",
     [](const Figures& chip) { return chip.counts->reads; }},
    {"koru_register_writes", "counter", "Writes of registers.",
     [](const Figures& chip) { return chip.counts->writes; }},
    {"koru_register_failures", "counter", "Reads and writes of registers that failed.",
     [](const Figures& chip) { return chip.counts->failures; }},
    {"koru_register_retries", "counter", "Accesses that were made once more on a busy bus.",
     [](const Figures& chip) { return chip.counts->retries; }},
    {"koru_chip_rewrites", "counter", "Passes over all registers of a chip.",
     [](const Figures& chip) { return uint64_t{chip.health.rewrites}; }},
    {"koru_chip_drifts", "counter", "Registers that did not hold what was written.",
     [](const Figures& chip) { return uint64_t{chip.health.drifted}; }},
    {"koru_chip_resets", "counter", "How often the chip was found to be reset.",
     [](const Figures& chip) { return uint64_t{chip.health.resets}; }},
    {"koru_chip_attempts", "gauge",
     "Attempts to bring the chip up or rewrite it that failed in a row.",
     [](const Figures& chip) { return uint64_t{chip.health.attempts}; }},
    {"koru_fields_differing", "gauge", "Fields whose value has not been written to the chip yet.",
     [](const Figures& chip) { return uint64_t{chip.differing}; }},
    {"koru_writes_in_flight", "gauge", "Writes that the transport has taken, and not made yet.",
     [](const Figures& chip) { return uint64_t{chip.health.inFlight}; }},
    {"koru_writes_pending", "gauge", "Writes left of the pass over all registers that goes on.",
     [](const Figures& chip) { return uint64_t{chip.health.pendingWrites}; }},
};

void putRows(Text& text, const std::vector<Figures>& chips) {
  for (const Row& row : rows) {
    text.family(row.name, row.type, row.help);
    const char* const suffix = std::string_view(row.type) == "counter" ? "_total" : "";
    for (const Figures& chip : chips) {
      if (chip.counts) text.put("{}{}{{{}}} {}\n", row.name, suffix, chip.label, row.of(chip));
    }
  }
  text.family("koru_last_change_timestamp_seconds", "gauge",
              "When a field of the chip was changed the last time.");
  for (const Figures& chip : chips) {
    if (!chip.counts || chip.counts->lastChange == 0) continue;
    text.put("koru_last_change_timestamp_seconds{{{}}} {:.3f}\n", chip.label,
             static_cast<double>(chip.counts->lastChange) / second);
  }
}

void putTimes(Text& text, const std::vector<Figures>& chips) {
  std::map<std::string, AccessCounts> kinds;
  for (const Figures& chip : chips) {
    if (!chip.counts) continue;
    AccessCounts& all = kinds[chip.transport];
    for (size_t i = 0; i < all.classes.size(); ++i) all.classes[i] += chip.counts->classes[i];
    all.nanoseconds += chip.counts->nanoseconds;
  }
  constexpr const char* name = "koru_register_access_seconds";
  text.family(name, "histogram", "How long accesses took whose end is known, by transport.");
  for (const auto& [kind, counts] : kinds) {
    uint64_t count = 0;
    for (size_t i = 0; i < counts.classes.size(); ++i) {
      count += counts.classes[i];
      const std::string longest =
          i < AccessCounts::longest.size()
              ? fmt::format("{}", static_cast<double>(AccessCounts::longest[i]) / second)
              : "+Inf";
      text.put("{}_bucket{{transport=\"{}\",le=\"{}\"}} {}\n", name, kind, longest, count);
    }
    text.put("{}_count{{transport=\"{}\"}} {}\n", name, kind, count);
    text.put("{}_sum{{transport=\"{}\"}} {:.9f}\n", name, kind,
             static_cast<double>(counts.nanoseconds) / second);
  }
}

}  // namespace

std::string metrics(const BoardKeeper& keeper, size_t clients) {
  const std::vector<Figures> chips = figuresOf(keeper);
  Text text;
  putStates(text, chips);
  putRows(text, chips);
  putTimes(text, chips);
  text.family("koru_clients", "gauge", "Clients that are connected to the agent's socket.");
  text.put("koru_clients {}\n", clients);
  return text.ended();
}

std::string Requests::metricsText() const { return Board::metrics(keeper_, clients_); }

Json Requests::metrics(Call& /*call*/) { return {{"text", metricsText()}}; }

}  // namespace Board
