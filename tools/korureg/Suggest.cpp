#include "korureg/Suggest.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

namespace korureg {

namespace {

constexpr size_t mostSuggestions = 3;

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// How many insertions, deletions and replacements turn one name into the other; letter case is
// free.
size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t replaced = diagonal + (lower(a[i]) == lower(b[j]) ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string suggestion(std::string_view wanted, const std::vector<std::string_view>& names) {
  const size_t farthest = (wanted.size() + 2) / 3;
  std::vector<std::pair<size_t, std::string_view>> near;
  for (const std::string_view name : names) {
    if (name.size() > wanted.size() + farthest) continue;
    const size_t distance = editDistance(wanted, name);
    if (distance <= farthest) near.emplace_back(distance, name);
  }
  if (near.empty()) return "";
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  near.resize(std::min(near.size(), mostSuggestions));
  std::string text;
  for (const auto& [distance, name] : near) {
    text += fmt::format("{}'{}'", text.empty() ? "" : " or ", name);
  }
  return fmt::format("; did you mean {}?", text);
}

}  // namespace korureg
