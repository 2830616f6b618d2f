// The fields of a chip: logical ones, physical ones, and which stands for which.

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/RegisterFile.h"
#include "board/description/internal/Meanings.h"

namespace Board {

namespace {

// Bit 63 of a logical register is out of reach: a field that ends there is not composed cleanly.
constexpr unsigned logicalBits = 63;

// A field as it stands in one of the two tables.
struct Part {
  const toml::node* node = nullptr;
  Bits bits;
  FieldKind kind = FieldKind::stored;
  SharedMeaning meaning;
  const Part* partner = nullptr;  // of a physical field: what stands for it
};
using Parts = std::map<Names, Part>;

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
  FieldsReading(ChipReading& reading, const ChipSource& source)
      : reading_(reading), source_(source) {}

  std::vector<Field> read() {
    const toml::table& chip = source_.table;
    forEachField(reading_, chip, "physical", [this](const Names& names, const toml::table& table) {
      readPhysical(names, table);
    });
    forEachField(reading_, chip, "logical", [this](const Names& names, const toml::table& table) {
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
    reading_.onlyKeys(table, {"bits", "kind"}, meaningKeys);
    const auto bits = readHardwareBits(reading_, names, table);
    if (!bits) return;
    Part& part = physical_[names];
    part = {&table, *bits, readKind(table), readMeaning(reading_, names, table, bits->size)};
    byJoinedName_[joined(names)].push_back(names);
    const auto* reg = registerWith(reading_, source_, names, *bits, table);
    if (!reg) return;
    if (!reg->writeable) {
      reading_.problem(table, "register '{}' is read-only in the map", names.first);
    } else if (const auto why = source_.transport.whyNot(*reg)) {
      reading_.problem(table, "register '{}' cannot be written: {}", names.first, *why);
    }
  }

  FieldKind readKind(const toml::table& table) {
    constexpr FieldKind kinds[] = {FieldKind::stored, FieldKind::pulse, FieldKind::write1clear,
                                   FieldKind::changing};
    const auto text = reading_.text(table, "kind");
    if (!text) return FieldKind::stored;
    std::string names;
    for (const FieldKind kind : kinds) {
      if (*text == kindName(kind)) return kind;
      names += fmt::format("{}{}", names.empty() ? "" : ", ", kindName(kind));
    }
    reading_.problem(*table.get("kind"), "kind has to be one of {}", names);
    return FieldKind::stored;
  }

  void readLogical(const Names& names, const toml::table& table) {
    reading_.onlyKeys(table, {"bits", "to", "value"}, meaningKeys);
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
    if (!bits || !physical) return;
    Part& part = physical->second;
    Part& logical = logical_[names];
    logical = {&table, *bits, part.kind,
               readMeaning(reading_, names, table, bits->size, part.meaning)};
    part.partner = &logical;
    if (bits->size > part.bits.size) {
      reading_.problem(table, "field {} {} is wider than the physical field {} {}", joined(names),
                       bitsText(*bits), *to, bitsText(part.bits));
    }
    if (logical.meaning && logical.meaning->isSigned && bits->size < part.bits.size) {
      reading_.problem(table,
                       "field {} {} is signed, and narrower than the physical field {} {}, which "
                       "would never hold a number below zero",
                       joined(names), bitsText(*bits), *to, bitsText(part.bits));
    }
    add(names, logical, readValue(names, logical, table), *physical);
  }

  // What the field holds before anybody has written it.
  uint32_t readValue(const Names& names, const Part& logical, const toml::table& table) {
    const unsigned size = logical.bits.size;
    uint32_t value = 0;
    const auto* text = table.get_as<std::string>("value");
    try {
      if (text) value = rawValue(logical.meaning.get(), text->get(), size);
    } catch (const std::invalid_argument& e) {
      reading_.problem(*text, "the value of field {}: {}", joined(names), e.what());
    }
    if (!text) {
      constexpr auto most = std::numeric_limits<uint32_t>::max();
      value = static_cast<uint32_t>(reading_.number(table, "value", 0, most).value_or(0));
    }
    if (!KoruRegFile::fitsWidth(value, size)) {
      reading_.problem(table, "the value {:#x} has more than the {} bits of field {}", value, size,
                       joined(names));
    }
    if (value != 0 && isSentOnce(logical.kind)) {
      reading_.problem(table, "field {} is a {}, which cannot have a value beside 0 here",
                       joined(names), kindName(logical.kind));
    }
    return value;
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

  void add(const Names& names, const Part& logical, uint32_t value, const Parts::value_type& to) {
    if (!source_.registers.hasRegName(to.first.first)) return;
    const KoruRegFile::Register& reg = source_.registers.findRegisterByName(to.first.first);
    fields_.push_back({names.first, names.second, logical.bits, value, reg.name, to.first.second,
                       to.second.bits, reg.address, logical.kind, logical.meaning});
  }

  ChipReading& reading_;
  const ChipSource& source_;
  Parts physical_;
  Parts logical_;
  std::map<std::string, std::vector<Names>> byJoinedName_;
  std::vector<Field> fields_;
};

}  // namespace

std::vector<Field> readFields(ChipReading& reading, const ChipSource& source) {
  return FieldsReading(reading, source).read();
}

}  // namespace Board
