#include "board/description/internal/Reading.h"

#include <algorithm>

namespace Board {

std::optional<std::string> ChipReading::text(const toml::table& table, std::string_view key) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  if (const auto* value = node->as_string()) return value->get();
  problem(*node, "{} has to be a string", key);
  return std::nullopt;
}

std::optional<int64_t> ChipReading::number(const toml::table& table, std::string_view key,
                                           int64_t least, int64_t most) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  const auto* value = node->as_integer();
  if (value && value->get() >= least && value->get() <= most) return value->get();
  problem(*node, "{} has to be a number from {} to {}", key, least, most);
  return std::nullopt;
}

void ChipReading::onlyKeys(const toml::table& table,
                           std::initializer_list<std::string_view> known) {
  for (const auto& [key, node] : table) {
    if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
      problem(node, "there is no key '{}' here; there are {}", key.str(), fmt::join(known, ", "));
    }
  }
}

const toml::table* ChipReading::table(const toml::table& parent, std::string_view key) {
  const toml::node* node = parent.get(key);
  if (!node) return nullptr;
  if (const auto* found = node->as_table()) return found;
  problem(*node, "{} has to be a table", key);
  return nullptr;
}

}  // namespace Board
