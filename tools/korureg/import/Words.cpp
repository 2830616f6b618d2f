#include "korureg/import/Words.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace korureg {

namespace {

constexpr uint64_t highest = uint64_t{1} << 63;

std::optional<uint64_t> digits(std::string_view text, int base) {
  uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

// "8'h10", "'sd12"; nothing when there is no such mark.
std::optional<std::pair<std::string_view, int>> afterApostrophe(std::string_view text) {
  const size_t mark = text.find('\'');
  if (mark == text.npos || (mark != 0 && !digits(text.substr(0, mark), 10))) return std::nullopt;
  text.remove_prefix(mark + 1);
  if (text.starts_with('s') || text.starts_with('S')) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  const char letter = text.front();
  const int base = letter == 'h' || letter == 'H'   ? 16
                   : letter == 'd' || letter == 'D' ? 10
                   : letter == 'o' || letter == 'O' ? 8
                   : letter == 'b' || letter == 'B' ? 2
                                                    : 0;
  if (base == 0) return std::nullopt;
  return std::pair(text.substr(1), base);
}

// How many bits the suffix shifts by; 0 for none.
unsigned suffixShift(char last) {
  constexpr std::string_view letters = "kKmMgGtT";
  const size_t found = letters.find(last);
  return found == letters.npos ? 0 : 10 * (static_cast<unsigned>(found) / 2 + 1);
}

// "25", "-3.5", "0x1f": a system file would not take it for a name.
bool looksLikeNumber(std::string_view name) {
  if (name.starts_with('+')) name.remove_prefix(1);
  const size_t first = name.find_first_not_of("-.");
  if (first == name.npos || name[first] < '0' || name[first] > '9') return false;
  for (const char* prefix : {"0x", "0X", "0b", "0B"}) {
    if (name.starts_with(prefix)) return true;
  }
  double number = 0;
  const char* const end = name.data() + name.size();
  return std::from_chars(name.data(), end, number).ptr == end;
}

}  // namespace

std::optional<uint64_t> numberIn(std::string_view text) {
  std::string plain(text);
  std::erase(plain, '_');
  text = plain;
  if (text.starts_with('+')) text.remove_prefix(1);
  const unsigned shift = text.empty() ? 0 : suffixShift(text.back());
  if (shift != 0) text.remove_suffix(1);
  std::optional<uint64_t> value;
  if (const auto marked = afterApostrophe(text)) {
    value = digits(marked->first, marked->second);
  } else if (text.starts_with("0x") || text.starts_with("0X")) {
    value = digits(text.substr(2), 16);
  } else if (text.starts_with("0b") || text.starts_with("0B")) {
    value = digits(text.substr(2), 2);
  } else if (text.starts_with('#')) {
    value = digits(text.substr(1), 2);
  } else {
    value = digits(text, 10);
  }
  if (!value || (shift != 0 && *value >= highest >> shift)) return std::nullopt;
  return *value << shift;
}

std::optional<uint64_t> numberOf(const XmlElement& element, std::string_view name) {
  const XmlElement* const found = element.child(name);
  if (!found) return std::nullopt;
  if (const auto number = numberIn(found->text)) return number;
  throw ImportError(found->place, fmt::format("{}: '{}' is no number", name, found->text));
}

uint64_t sumAt(const FilePlace& place, uint64_t a, uint64_t b) {
  if (a >= highest || b >= highest - a) throw ImportError(place, "the address is out of range");
  return a + b;
}

uint64_t productAt(const FilePlace& place, uint64_t a, uint64_t b) {
  if (b != 0 && a >= highest / b) throw ImportError(place, "the address is out of range");
  return a * b;
}

std::optional<Access> accessIn(std::string_view word) {
  if (word == "read-write" || word == "read-writeOnce") return Access{true, true};
  if (word == "read-only") return Access{true, false};
  if (word == "write-only" || word == "writeOnce") return Access{false, true};
  return std::nullopt;
}

void tellEffects(Import& import, ImportedField& field, std::string_view modified,
                 std::string_view read) {
  if (modified == "oneToClear") {
    field.kind = Board::FieldKind::write1clear;
  } else if (modified == "oneToSet" || modified == "oneToToggle") {
    field.kind = Board::FieldKind::pulse;
  } else if (!modified.empty() && modified != "modify") {
    import.remark(field.place, fmt::format("field '{}': {} cannot be held; it is read only, and "
                                           "written as 0 with its register",
                                           field.name, modified));
    field.access.writes = false;
  }
  if (!read.empty()) field.readChanges = true;
}

void addValue(Import& import, ImportedField& field, const FilePlace& place, std::string_view name,
              std::string_view value) {
  const auto number = numberIn(value);
  const std::string text = inOneLine(name);
  const auto refuse = [&](std::string_view why) {
    import.remark(
        place, fmt::format("field '{}': the value '{}' = '{}' {}", field.name, text, value, why));
  };
  if (!number) return refuse("is no single number");
  if (field.bits.size < 64 && *number >> field.bits.size != 0) return refuse("has too many bits");
  if (text.empty() || looksLikeNumber(text)) {
    return refuse("has no name, or one that could be a number");
  }
  auto& values = field.meaning.values;
  const bool isTaken = std::any_of(values.begin(), values.end(), [&](const auto& each) {
    return each.value == *number || each.name == text;
  });
  if (isTaken) return refuse("has the number or the name of another one");
  values.push_back({text, static_cast<uint32_t>(*number)});
}

void addNote(ImportedField& field, std::string_view name, std::string_view description) {
  if (description.empty() || field.notes.size() > 4096) return;
  field.notes += fmt::format("{}{}: {}", field.notes.empty() ? "" : "; ", inOneLine(name),
                             inOneLine(description));
}

void requireRoom(const FilePlace& place, size_t fields) {
  constexpr size_t most = 1024;
  if (fields >= most) throw ImportError(place, fmt::format("more than {} fields", most));
}

void tellOthers(Import& import, const XmlElement& element,
                std::initializer_list<std::string_view> known) {
  for (const XmlElement& child : element.children) {
    if (std::find(known.begin(), known.end(), child.name) == known.end()) {
      import.remark(child.place, fmt::format("{} of a {} is not held", child.name, element.name));
    } else if (child.name == "access" && child.text.ends_with("Once")) {
      import.remark(child.place,
                    fmt::format("that a {} is written only once is not held", element.name));
    }
  }
}

uint32_t partOf(uint64_t value, const Board::Bits& bits) {
  const uint64_t mask = (uint64_t{1} << bits.size) - 1;
  return bits.start > 63 ? 0 : static_cast<uint32_t>(value >> bits.start & mask);
}

}  // namespace korureg
