// The fields of a chip: logical ones, physical ones, and which stands for which.

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "KoruRegFile/RegisterFile.h"
#include "board/description/internal/Reading.h"

namespace Board {

namespace {

constexpr unsigned widestField = 32;
// Bit 63 of a logical register is out of reach: a field that ends there is not composed cleanly.
constexpr unsigned logicalBits = 63;

using Names = std::pair<std::string, std::string>;  // register, field

// A field as it stands in one of the two tables.
struct Part {
  const toml::node* node = nullptr;
  Bits bits;
  const Part* partner = nullptr;  // of a physical field: what stands for it
};
using Parts = std::map<Names, Part>;

std::optional<unsigned> wholeNumber(std::string_view text) {
  if (text.empty() || text.size() > 3) return std::nullopt;
  unsigned number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    number = 10 * number + static_cast<unsigned>(c - '0');
  }
  return number;
}

// "7:4", or a single bit as a number. Nothing, and a problem, for anything else.
std::optional<Bits> readBits(ChipReading& reading, const toml::node& node, unsigned limit) {
  std::optional<unsigned> high;
  std::optional<unsigned> low;
  if (const auto* single = node.as_integer()) {
    if (single->get() >= 0 && single->get() < limit)
      low = high = static_cast<unsigned>(single->get());
  } else if (const auto* text = node.as_string()) {
    const std::string_view range = text->get();
    const size_t colon = range.find(':');
    high = wholeNumber(range.substr(0, colon));
    low = colon == std::string_view::npos ? high : wholeNumber(range.substr(colon + 1));
  }
  if (!high || !low || *high < *low || *high >= limit || *high - *low >= widestField) {
    reading.problem(node,
                    "bits have to be a number or \"high:low\", from 0 to {} and at most {} of them",
                    limit - 1, widestField);
    return std::nullopt;
  }
  return Bits{static_cast<uint8_t>(*low), static_cast<uint8_t>(*high - *low + 1)};
}

std::string bitsText(const Bits& bits) {
  return fmt::format("[{}:{}]", bits.start + bits.size - 1, bits.start);
}

std::string joined(const Names& names) { return names.first + '.' + names.second; }

// Calls use(names, table) for each field of the table `key`, which holds a table for each register.
template <class Use>
void forEachField(ChipReading& reading, const toml::table& chip, std::string_view key, Use use) {
  const toml::table* registers = reading.table(chip, key);
  if (!registers) return;
  for (const auto& [registerName, node] : *registers) {
    const toml::table* fields = reading.table(*registers, registerName.str());
    if (!fields) continue;
    for (const auto& [fieldName, field] : *fields) {
      const Names names(registerName.str(), fieldName.str());
      if (names.first.empty() || names.second.empty()) {
        reading.problem(field, "a register and a field need a name");
      } else if (const auto* table = field.as_table()) {
        use(names, *table);
      } else {
        reading.problem(field, "{}.{} has to be a table, as in {{ bits = \"7:4\" }}", key,
                        joined(names));
      }
    }
  }
}

// Complains of fields of one register that share bits.
void checkOverlaps(ChipReading& reading, const Parts& parts) {
  std::vector<Parts::const_iterator> sorted;
  for (auto part = parts.begin(); part != parts.end(); ++part) sorted.push_back(part);
  const auto place = [](const auto& part) {
    return std::tie(part->first.first, part->second.bits.start, part->first.second);
  };
  std::sort(sorted.begin(), sorted.end(),
            [&](const auto& a, const auto& b) { return place(a) < place(b); });
  auto reachesFarthest = parts.end();  // of the fields of the same register so far
  const auto end = [](const auto& part) {
    return part->second.bits.start + part->second.bits.size;
  };
  for (const auto& part : sorted) {
    const bool sameRegister =
        reachesFarthest != parts.end() && reachesFarthest->first.first == part->first.first;
    if (sameRegister && part->second.bits.start < end(reachesFarthest)) {
      reading.problem(*part->second.node, "field {} {} overlaps {} {}", joined(part->first),
                      bitsText(part->second.bits), joined(reachesFarthest->first),
                      bitsText(reachesFarthest->second.bits));
    }
    if (!sameRegister || end(part) > end(reachesFarthest)) reachesFarthest = part;
  }
}

class FieldsReading {
 public:
  FieldsReading(ChipReading& reading, const toml::table& chip, const Transport& transport,
                const KoruRegFile::RegisterFile& registers)
      : reading_(reading), chip_(chip), transport_(transport), registers_(registers) {}

  std::vector<Field> read() {
    forEachField(reading_, chip_, "physical", [this](const Names& names, const toml::table& table) {
      readPhysical(names, table);
    });
    forEachField(reading_, chip_, "logical", [this](const Names& names, const toml::table& table) {
      readLogical(names, table);
    });
    for (const auto& [names, part] : physical_) {
      if (!part.partner) {
        reading_.problem(*part.node, "no logical field stands for the physical field {}",
                         joined(names));
      }
    }
    checkOverlaps(reading_, physical_);
    checkOverlaps(reading_, logical_);
    return std::move(fields_);
  }

 private:
  void readPhysical(const Names& names, const toml::table& table) {
    reading_.onlyKeys(table, {"bits"});
    const toml::node* node = table.get("bits");
    if (!node) return reading_.problem(table, "field {} has no bits", joined(names));
    const auto bits = readBits(reading_, *node, 32);
    if (!bits) return;
    physical_[names] = {&table, *bits};
    byJoinedName_[joined(names)].push_back(names);
    if (!registers_.hasRegName(names.first)) {
      return reading_.problem(table, "there is no register '{}' in the map", names.first);
    }
    const KoruRegFile::Register& reg = registers_.findRegisterByName(names.first);
    if (!reg.writeable) {
      reading_.problem(table, "register '{}' is read-only in the map", names.first);
    } else if (bits->start + bits->size > reg.width) {
      reading_.problem(table, "field {} {} lies outside its register, which has {} bits",
                       joined(names), bitsText(*bits), reg.width);
    } else if (const auto why = transport_.whyNot(reg)) {
      reading_.problem(table, "register '{}' cannot be written: {}", names.first, *why);
    }
  }

  void readLogical(const Names& names, const toml::table& table) {
    reading_.onlyKeys(table, {"bits", "to", "value"});
    const auto to = reading_.text(table, "to");
    if (!to) {
      if (!table.contains("to")) {
        reading_.problem(table, "field {} does not say which physical field it stands for: to",
                         joined(names));
      }
      return;
    }
    const auto physical = physicalField(table, names, *to);
    const toml::node* bitsNode = table.get("bits");
    // Placed as the physical field is, unless the file says otherwise.
    const auto bits = bitsNode   ? readBits(reading_, *bitsNode, logicalBits)
                      : physical ? std::optional(physical->second.bits)
                                 : std::nullopt;
    const auto value =
        reading_.number(table, "value", 0, std::numeric_limits<uint32_t>::max()).value_or(0);
    if (!bits || !physical) return;
    Part& logical = logical_[names];
    logical = {&table, *bits};
    physical->second.partner = &logical;
    if (bits->size > physical->second.bits.size) {
      reading_.problem(table, "field {} {} is wider than the physical field {} {}", joined(names),
                       bitsText(*bits), *to, bitsText(physical->second.bits));
    }
    if (value >> bits->size != 0) {
      reading_.problem(table, "the value {:#x} has more than the {} bits of field {}", value,
                       bits->size, joined(names));
    }
    add(names, *bits, static_cast<uint32_t>(value), *physical);
  }

  // The physical field that "REGISTER.FIELD" names; null, and a problem, when it names none, or one
  // that is taken.
  Parts::value_type* physicalField(const toml::table& table, const Names& names,
                                   const std::string& to) {
    const auto found = byJoinedName_.find(to);
    if (found == byJoinedName_.end()) {
      reading_.problem(table, "field {} stands for {}, which is no physical field here",
                       joined(names), to);
      return nullptr;
    }
    if (found->second.size() > 1) {
      reading_.problem(table, "there are two physical fields that are written {}", to);
      return nullptr;
    }
    auto& physical = *physical_.find(found->second.front());
    if (physical.second.partner) {
      reading_.problem(table, "the physical field {} has a logical field already, in line {}", to,
                       physical.second.partner->node->source().begin.line);
      return nullptr;
    }
    return &physical;
  }

  void add(const Names& names, const Bits& bits, uint32_t value, const Parts::value_type& to) {
    if (!registers_.hasRegName(to.first.first)) return;
    const KoruRegFile::Register& reg = registers_.findRegisterByName(to.first.first);
    fields_.push_back({names.first,
                       names.second,
                       bits,
                       value,
                       reg.name,
                       to.first.second,
                       to.second.bits,
                       reg.address,
                       FieldKind::stored,
                       {}});
  }

  ChipReading& reading_;
  const toml::table& chip_;
  const Transport& transport_;
  const KoruRegFile::RegisterFile& registers_;
  Parts physical_;
  Parts logical_;
  std::map<std::string, std::vector<Names>> byJoinedName_;
  std::vector<Field> fields_;
};

}  // namespace

std::vector<Field> readFields(ChipReading& reading, const toml::table& chip,
                              const Transport& transport,
                              const KoruRegFile::RegisterFile& registers) {
  return FieldsReading(reading, chip, transport, registers).read();
}

}  // namespace Board
