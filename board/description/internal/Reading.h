#pragma once

// What the parts of the reader of system files share; internal to description/.

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "board/description/Description.h"
#include "board/description/internal/Toml.h"

namespace KoruRegFile {
class RegisterFile;
}

namespace Board {

// One line, without control characters.
bool isPrintable(std::string_view text);

// Reads one chip and collects what is wrong with it.
class ChipReading {
 public:
  ChipReading(const std::string& file, std::string chip, std::vector<Problem>& problems)
      : file_(file), chip_(std::move(chip)), problems_(problems) {}

  template <class... Args>
  void problem(const toml::node& node, fmt::format_string<Args...> text, Args&&... args) {
    const size_t line = node.source().begin.line;
    problems_.push_back({chip_, line, line == 0 ? file_ : fmt::format("{}:{}", file_, line),
                         fmt::format(text, std::forward<Args>(args)...)});
    hasProblem_ = true;
  }
  bool hasProblem() const { return hasProblem_; }

  // The value of a key of the table; nothing, and a problem when it is there, of another type.
  std::optional<std::string> text(const toml::table& table, std::string_view key);
  // The same for a text that is shown to people: in one line, without control characters.
  std::optional<std::string> label(const toml::table& table, std::string_view key);
  std::optional<int64_t> number(const toml::table& table, std::string_view key, int64_t least,
                                int64_t most);
  // A finite one, with or without decimals.
  std::optional<double> real(const toml::table& table, std::string_view key);
  std::optional<bool> flag(const toml::table& table, std::string_view key);
  // "10ms", "30s", "2min"
  std::optional<std::chrono::milliseconds> duration(const toml::table& table, std::string_view key,
                                                    std::chrono::milliseconds least,
                                                    std::chrono::milliseconds most);
  // The strings of an array, and where they stand. A problem for each that is none.
  using Listed = std::vector<std::pair<std::string, const toml::node*>>;
  Listed texts(const toml::table& table, std::string_view key);
  // Complains of every key of the table that is none of those.
  void onlyKeys(const toml::table& table, std::initializer_list<std::string_view> known,
                std::span<const std::string_view> more = {});
  // The table under that key; null, and a problem when it is there, for anything else.
  const toml::table* table(const toml::table& parent, std::string_view key);

 private:
  const std::string& file_;
  const std::string chip_;
  std::vector<Problem>& problems_;
  bool hasProblem_ = false;
};

// What the fields of a chip are read from.
struct ChipSource {
  const toml::table& table;  // the chip's
  const Transport& transport;
  const KoruRegFile::RegisterFile& registers;  // its map
};

// What the tables of a system file say; without a path those of no file, whose places are not told.
Description readTables(const toml::table& root, const std::string& path);

// The fields of a chip, from its tables `logical` and `physical`.
std::vector<Field> readFields(ChipReading& reading, const ChipSource& source);

// Its status fields, from the table `status`. `fields` are those that the chip has already.
std::vector<StatusField> readStatusFields(ChipReading& reading, const ChipSource& source,
                                          const std::vector<Field>& fields);

// From `first`, `last`, and the key `settle` of its physical registers.
WriteOrder readOrder(ChipReading& reading, const ChipSource& source);

std::set<std::string> readReadChanges(ChipReading& reading, const ChipSource& source);

// From `verify_every` and `canary`.
Upkeep readUpkeep(ChipReading& reading, const ChipSource& source,
                  const std::set<std::string>& readChanges);

}  // namespace Board
