#include "korureg/import/SvdFields.h"

#include <fmt/format.h>

namespace korureg {

namespace {

// The first and the last bit.
using Ends = std::pair<uint64_t, uint64_t>;

// "[7:4]"
std::optional<Ends> rangeIn(std::string_view text) {
  const size_t colon = text.find(':');
  if (!text.starts_with('[') || !text.ends_with(']') || colon == text.npos) return std::nullopt;
  const auto high = numberIn(text.substr(1, colon - 1));
  const auto low = numberIn(text.substr(colon + 1, text.size() - colon - 2));
  if (!high || !low) return std::nullopt;
  return Ends(*low, *high);
}

// Where the field lies, in any of three ways; nothing for none of them.
std::optional<Ends> endsOf(const SvdChain& chain) {
  for (const XmlElement* each : chain) {
    if (const XmlElement* range = each->child("bitRange")) return rangeIn(range->text);
    const auto lsb = numberOf(*each, "lsb");
    const auto msb = numberOf(*each, "msb");
    if (lsb && msb) return Ends(*lsb, *msb);
    if (const auto offset = numberOf(*each, "bitOffset")) {
      const uint64_t width = numberOf(*each, "bitWidth").value_or(1);
      return Ends(*offset, sumAt(each->place, *offset, width) - 1);
    }
  }
  return std::nullopt;
}

void readValues(const XmlElement& element, ImportedField& field, Import& import) {
  tellOthers(import, element, {"name", "headerEnumName", "usage", "enumeratedValue"});
  for (const XmlElement* each : members(chainOf(element, import), "", {"enumeratedValue"})) {
    import.spend(each->place);
    if (each->child("isDefault")) {
      import.remark(each->place,
                    fmt::format("field '{}': a name for all other values is not held", field.name));
    } else {
      addValue(import, field, each->place, each->textOf("name"), each->textOf("value"));
    }
    addNote(field, each->textOf("name"), each->textOf("description"));
  }
}

class FieldReader {
 public:
  FieldReader(const SvdDefaults& defaults, Import& import) : defaults_(defaults), import_(import) {}

  void read(const XmlElement& element, std::vector<ImportedField>& fields) {
    tellOthers(import_, element,
               {"name", "description", "bitOffset", "bitWidth", "lsb", "msb", "bitRange", "access",
                "modifiedWriteValues", "readAction", "enumeratedValues", "dim", "dimIncrement",
                "dimIndex", "dimName"});
    const SvdChain chain = chainOf(element, import_);
    const auto ends = endsOf(chain);
    for (const Copy& copy : copiesOf(element, import_)) {
      requireRoom(element.place, fields.size());
      ImportedField field;
      field.place = element.place;
      field.name = inOneLine(named(element.textOf("name"), copy));
      if (!ends || ends->first > ends->second ||
          sumAt(element.place, ends->second, copy.offset) >= defaults_.size ||
          ends->second - ends->first >= 32) {
        import_.remark(element.place, fmt::format("field '{}' has no bits within its register's {}",
                                                  field.name, defaults_.size));
        continue;
      }
      field.bits = {static_cast<uint8_t>(ends->first + copy.offset),
                    static_cast<uint8_t>(ends->second - ends->first + 1)};
      field.meaning.description = inOneLine(named(inheritedText(chain, "description"), copy));
      describe(chain, field);
      fields.push_back(std::move(field));
    }
  }

 private:
  void describe(const SvdChain& chain, ImportedField& field) {
    const SvdDefaults own = defaults_.of(chain);
    field.access = own.access;
    field.value = partOf(own.resetBits().value_or(0), field.bits);
    tellEffects(import_, field, own.modified, inheritedText(chain, "readAction"));
    // (A field may have one list for writing and one for reading.)
    bool isFirst = true;
    for (const XmlElement* values : members(chain, "", {"enumeratedValues"})) {
      if (isFirst) {
        readValues(*values, field, import_);
      } else {
        import_.remark(values->place,
                       fmt::format("field '{}': a second list of values is not held", field.name));
      }
      isFirst = false;
    }
  }

  const SvdDefaults& defaults_;
  Import& import_;
};

}  // namespace

SvdDefaults SvdDefaults::of(const SvdChain& chain) const {
  SvdDefaults own = *this;
  if (const auto number = inheritedNumber(chain, "size")) own.size = *number;
  if (const XmlElement* word = inherited(chain, "access")) {
    const auto found = accessIn(word->text);
    if (!found) throw ImportError(word->place, fmt::format("no access: '{}'", word->text));
    own.access = *found;
  }
  if (const auto number = inheritedNumber(chain, "resetValue")) own.reset = number;
  if (const auto mask = inheritedNumber(chain, "resetMask")) own.resetMask = *mask;
  if (const auto word = inheritedText(chain, "modifiedWriteValues"); !word.empty()) {
    own.modified = word;
  }
  return own;
}

std::vector<ImportedField> readSvdFields(const SvdChain& reg, const SvdDefaults& defaults,
                                         Import& import) {
  std::vector<ImportedField> fields;
  FieldReader reader(defaults, import);
  for (const XmlElement* each : members(reg, "fields", {"field"})) {
    import.spend(each->place);
    reader.read(*each, fields);
  }
  return fields;
}

}  // namespace korureg
