#pragma once

// What the parts of the reader of system files share; internal to system/.

#include <fmt/format.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "board/description/Description.h"
#include "board/description/internal/Toml.h"

namespace KoruRegFile {
class RegisterFile;
}

namespace Board {

// Reads one chip and collects what is wrong with it.
class ChipReading {
 public:
  ChipReading(const std::string& file, std::string chip, std::vector<Problem>& problems)
      : file_(file), chip_(std::move(chip)), problems_(problems) {}

  template <class... Args>
  void problem(const toml::node& node, fmt::format_string<Args...> text, Args&&... args) {
    const size_t line = node.source().begin.line;
    problems_.push_back({chip_, line, fmt::format("{}:{}", file_, line),
                         fmt::format(text, std::forward<Args>(args)...)});
    hasProblem_ = true;
  }
  bool hasProblem() const { return hasProblem_; }

  // The value of a key of the table; nothing, and a problem when it is there, of another type.
  std::optional<std::string> text(const toml::table& table, std::string_view key);
  std::optional<int64_t> number(const toml::table& table, std::string_view key, int64_t least,
                                int64_t most);
  // Complains of every key of the table that is none of those.
  void onlyKeys(const toml::table& table, std::initializer_list<std::string_view> known);
  // The table under that key; null, and a problem when it is there, for anything else.
  const toml::table* table(const toml::table& parent, std::string_view key);

 private:
  const std::string& file_;
  const std::string chip_;
  std::vector<Problem>& problems_;
  bool hasProblem_ = false;
};

// The fields of a chip, from its tables `logical` and `physical`.
std::vector<Field> readFields(ChipReading& reading, const toml::table& chip,
                              const Transport& transport,
                              const KoruRegFile::RegisterFile& registers);

}  // namespace Board
