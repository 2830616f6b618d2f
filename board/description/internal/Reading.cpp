#include "board/description/internal/Reading.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace Board {

namespace {

using std::chrono::milliseconds;

struct Unit {
  std::string_view name;
  milliseconds length;
};
constexpr Unit units[] = {
    {"ms", milliseconds(1)}, {"s", std::chrono::seconds(1)}, {"min", std::chrono::minutes(1)}};

std::optional<milliseconds> durationIn(std::string_view text) {
  uint32_t count = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, count);
  if (error != std::errc()) return std::nullopt;
  const std::string_view name(stop, static_cast<size_t>(end - stop));
  for (const Unit& unit : units) {
    if (unit.name == name) return count * unit.length;
  }
  return std::nullopt;
}

// With the longest unit that it is a whole number of.
std::string durationText(milliseconds duration) {
  const Unit* best = units;
  for (const Unit& unit : units) {
    if (duration.count() != 0 && duration % unit.length == milliseconds(0)) best = &unit;
  }
  return fmt::format("{}{}", duration / best->length, best->name);
}

}  // namespace

bool isPrintable(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    const auto next = static_cast<uint8_t>(i + 1 < text.size() ? text[i + 1] : 0);
    // (In UTF-8, U+0080 to U+009F are control characters, too.)
    if (byte < 0x20 || byte == 0x7f || (byte == 0xc2 && next < 0xa0)) return false;
  }
  return true;
}

std::optional<std::string> ChipReading::text(const toml::table& table, std::string_view key) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  if (const auto* value = node->as_string()) return value->get();
  problem(*node, "{} has to be a string", key);
  return std::nullopt;
}

std::optional<std::string> ChipReading::label(const toml::table& table, std::string_view key) {
  const auto found = text(table, key);
  if (!found || isPrintable(*found)) return found;
  problem(*table.get(key), "{} has to be one line, without control characters", key);
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

std::optional<double> ChipReading::real(const toml::table& table, std::string_view key) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  if (const auto* whole = node->as_integer()) return static_cast<double>(whole->get());
  const auto* value = node->as_floating_point();
  if (value && std::isfinite(value->get())) return value->get();
  problem(*node, "{} has to be a finite number", key);
  return std::nullopt;
}

std::optional<bool> ChipReading::flag(const toml::table& table, std::string_view key) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  if (const auto* value = node->as_boolean()) return value->get();
  problem(*node, "{} has to be true or false", key);
  return std::nullopt;
}

std::optional<milliseconds> ChipReading::duration(const toml::table& table, std::string_view key,
                                                  milliseconds least, milliseconds most) {
  const toml::node* node = table.get(key);
  if (!node) return std::nullopt;
  const auto* text = node->as_string();
  const auto found = text ? durationIn(text->get()) : std::nullopt;
  if (found && *found >= least && *found <= most) return found;
  problem(*node, "{} has to be a time from {} to {}, as in \"10ms\", \"30s\" or \"2min\"", key,
          durationText(least), durationText(most));
  return std::nullopt;
}

ChipReading::Listed ChipReading::texts(const toml::table& table, std::string_view key) {
  Listed found;
  const toml::node* node = table.get(key);
  if (!node) return found;
  const auto* array = node->as_array();
  if (!array) problem(*node, "{} has to be an array, as in [\"A\", \"B\"]", key);
  for (size_t i = 0; array && i < array->size(); ++i) {
    const toml::node& element = *array->get(i);
    if (const auto* text = element.as_string()) {
      found.emplace_back(text->get(), &element);
    } else {
      problem(element, "{} has to be an array of strings", key);
    }
  }
  return found;
}

void ChipReading::onlyKeys(const toml::table& table, std::initializer_list<std::string_view> known,
                           std::span<const std::string_view> more) {
  std::vector<std::string_view> all(known);
  all.insert(all.end(), more.begin(), more.end());
  for (const auto& [key, node] : table) {
    if (std::find(all.begin(), all.end(), key.str()) == all.end()) {
      problem(node, "there is no key '{}' here; there are {}", key.str(), fmt::join(all, ", "));
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
