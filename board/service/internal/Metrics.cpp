// How the board does, in figures, in the text format of OpenMetrics (docs/Metrics.md).

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Orb/Printable.h"
#include "board/chips/AccessCounts.h"
#include "board/devices/TransportKind.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Call.h"
#include "board/service/internal/Pieces.h"

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

// What there is to say of one chip, at the moment of the question.
struct Figures {
  std::string label;
  const char* transport = nullptr;
  Health health;
  std::optional<AccessCounts> counts;  // none for a chip that was refused
};

std::vector<Figures> figuresOf(const BoardKeeper& keeper) {
  std::vector<Figures> all;
  for (const std::string& chip : keeper.chipNames()) {
    Figures& figures = all.emplace_back();
    figures.label = fmt::format("chip=\"{}\"", labelText(chip));
    figures.health = keeper.health(chip);
    const Chip* const described = keeper.description(chip);
    const AccessCounts* const counts = keeper.accesses(chip);
    if (!described || !counts) continue;
    figures.transport = described->transport.kind->name;
    figures.counts = *counts;
  }
  return all;
}

class Text {
 public:
  explicit Text(std::string& text) : text_(text) {}
  void family(const char* name, const char* type, const char* help) {
    put("# TYPE {0} {1}\n# HELP {0} {2}\n", name, type, help);
  }
  template <class... Arguments>
  void put(fmt::format_string<Arguments...> form, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(text_), form, std::forward<Arguments>(arguments)...);
  }

 private:
  std::string& text_;
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
}

// A figure of each chip.
struct Row {
  enum class Of { described, all, changed };  // chips

  const char* name;
  const char* type;
  const char* help;
  uint64_t (*of)(const Figures& chip);
  Of chips = Of::described;
};
constexpr Row rows[] = {
    {"koru_chip_up", "gauge", "Whether everything that was asked for has been written.",
     [](const Figures& chip) { return uint64_t{chip.health.state == ChipState::up}; },
     Row::Of::all},
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
     [](const Figures& chip) { return uint64_t{chip.health.differing}; }},
    {"koru_writes_in_flight", "gauge", "Writes that the transport has taken, and not made yet.",
     [](const Figures& chip) { return uint64_t{chip.health.inFlight}; }},
    {"koru_writes_pending", "gauge", "Writes left of the pass over all registers that goes on.",
     [](const Figures& chip) { return uint64_t{chip.health.pendingWrites}; }},
    {"koru_table_readers", "gauge", "Other processes that read the chip's tables.",
     [](const Figures& chip) { return uint64_t{chip.health.tableReaders}; }},
    {"koru_last_change_timestamp_seconds", "gauge",
     "When a field of the chip was changed the last time.",
     [](const Figures& chip) { return static_cast<uint64_t>(chip.counts->lastChange); },
     Row::Of::changed},
};

void putSample(Text& text, const Row& row, const Figures& chip) {
  if (row.chips != Row::Of::all && !chip.counts) return;
  if (row.chips != Row::Of::changed) {
    const bool isCounter = std::string_view(row.type) == "counter";
    return text.put("{}{}{{{}}} {}\n", row.name, isCounter ? "_total" : "", chip.label,
                    row.of(chip));
  }
  if (const uint64_t time = row.of(chip); time != 0) {
    text.put("{}{{{}}} {:.3f}\n", row.name, chip.label, static_cast<double>(time) / second);
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

// All of it, some chips of a family at a time.
class MetricsPieces : public Pieces {
 public:
  MetricsPieces(std::vector<Figures> chips, size_t clients)
      : chips_(std::move(chips)), clients_(clients) {}

  bool next(std::string& out) override {
    constexpr size_t mostAtOnce = 64;
    Text text(out);
    const Row& row = rows[row_];
    if (row_ == 0 && chip_ == 0) putStates(text, chips_);
    if (chip_ == 0) text.family(row.name, row.type, row.help);
    for (const size_t end = std::min(chip_ + mostAtOnce, chips_.size()); chip_ < end; ++chip_) {
      putSample(text, row, chips_[chip_]);
    }
    if (chip_ < chips_.size()) return true;
    chip_ = 0;
    if (++row_ < std::size(rows)) return true;
    putTimes(text, chips_);
    text.family("koru_clients", "gauge", "Clients that are connected to the agent's socket.");
    text.put("koru_clients {}\n# EOF\n", clients_);
    return false;
  }

 private:
  const std::vector<Figures> chips_;
  const size_t clients_;
  size_t row_ = 0;
  size_t chip_ = 0;
};

// Another line's pieces as a text in an answer.
class TextAnswer : public Pieces {
 public:
  TextAnswer(Json id, std::unique_ptr<Pieces> text) : id_(std::move(id)), text_(std::move(text)) {}

  bool next(std::string& out) override {
    if (!std::exchange(hasBegun_, true)) {
      out += "{\"id\":" + jsonText(id_) + ",\"result\":{\"text\":\"";
    }
    std::string piece;
    const bool isMore = text_->next(piece);
    out += quotable(piece);
    if (!isMore) out += "\"},\"ok\":true}";
    return isMore;
  }

 private:
  const Json id_;
  const std::unique_ptr<Pieces> text_;
  bool hasBegun_ = false;
};

}  // namespace

std::unique_ptr<Pieces> Requests::metricsText() const {
  return std::make_unique<MetricsPieces>(figuresOf(keeper_), clients_);
}

Json Requests::metrics(Call& call) {
  call.answersLater = true;
  call.asker.list(std::make_unique<TextAnswer>(call.id(), metricsText()));
  return {};
}

}  // namespace Board
