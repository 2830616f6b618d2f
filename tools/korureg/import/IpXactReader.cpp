// IP-XACT (IEEE 1685-2009 and -2014): the memory maps of a component.

#include <fmt/format.h>

#include "korureg/import/Readers.h"
#include "korureg/import/Words.h"

namespace korureg {

namespace {

struct Scope {
  std::string prefix;
  uint64_t base = 0;       // in bytes
  uint64_t unitBytes = 1;  // of an address
  uint64_t width = 32;
  Access access;
  bool changes = false;  // "volatile"

  // The same with what this element says.
  Scope of(const XmlElement& element) const {
    Scope own = *this;
    if (const XmlElement* word = element.child("access")) {
      const auto found = accessIn(word->text);
      if (!found) throw ImportError(word->place, fmt::format("no access: '{}'", word->text));
      own.access = *found;
    }
    if (const XmlElement* word = element.child("volatile")) own.changes = word->text == "true";
    return own;
  }
};

// "_0_1" and where that lies, for each element of an array of any dimensions. `step` is how far the
// elements of the last dimension are apart.
std::vector<Copy> copiesIn(const XmlElement& element, uint64_t step, Import& import) {
  std::vector<Copy> copies = {Copy()};
  for (const XmlElement& dim : element.children) {
    if (dim.name != "dim") continue;
    const auto count = numberIn(dim.text);
    if (!count) throw ImportError(dim.place, fmt::format("dim: '{}' is no number", dim.text));
    if (*count > longestArray || *count * copies.size() > longestArray) {
      throw ImportError(dim.place, fmt::format("a dim of {} is too much: an array may have {} "
                                               "elements",
                                               *count, longestArray));
    }
    import.spend(dim.place, static_cast<size_t>(*count) * copies.size());
    std::vector<Copy> more;
    for (const Copy& each : copies) {
      for (uint64_t i = 0; i < *count; ++i) {
        more.push_back({fmt::format("{}_{}", each.index, i), each.offset * *count + i});
      }
    }
    copies = std::move(more);
  }
  for (Copy& each : copies) each.offset = productAt(element.place, each.offset, step);
  return copies;
}

class IpXactReader {
 public:
  IpXactReader(const XmlElement& component, Import& import)
      : component_(component), import_(import) {}

  void read() {
    import_.map.name = inOneLine(component_.textOf("name"));
    tellOthers(
        import_, component_,
        {"vendor", "library", "name", "version", "displayName", "description", "memoryMaps"});
    const XmlElement* maps = component_.child("memoryMaps");
    if (!maps) throw ImportError(component_.place, "the component has no memoryMaps");
    size_t blocks = 0;
    for (const XmlElement& map : maps->children) {
      for (const XmlElement& each : map.children) blocks += each.name == "addressBlock";
    }
    for (const XmlElement& map : maps->children) {
      tellOthers(
          import_, map,
          {"name", "displayName", "description", "addressBlock", "addressUnitBits", "shared"});
      readMap(map, blocks > 1);
    }
  }

 private:
  void readMap(const XmlElement& map, bool isOneOfMany) {
    const uint64_t unit = numberOf(map, "addressUnitBits").value_or(8);
    if (unit == 0 || unit % 8 != 0 || unit > 64) {
      throw ImportError(map.place, fmt::format("addressUnitBits of {} are no bytes", unit));
    }
    for (const XmlElement& block : map.children) {
      if (block.name != "addressBlock") continue;
      tellOthers(import_, block,
                 {"name", "displayName", "description", "typeIdentifier", "baseAddress", "range",
                  "width", "usage", "volatile", "access", "register", "registerFile"});
      import_.note(block.textOf("name"), block.textOf("description"));
      Scope scope;
      scope.unitBytes = unit / 8;
      scope.width = numberOf(block, "width").value_or(32);
      scope.base = inBytes(block, "baseAddress", scope);
      if (isOneOfMany || import_.namesBlocks)
        scope.prefix = std::string(block.textOf("name")) + "_";
      readMembers(block, scope.of(block));
    }
  }

  static uint64_t inBytes(const XmlElement& element, const char* name, const Scope& scope) {
    return productAt(element.place, numberOf(element, name).value_or(0), scope.unitBytes);
  }

  void readMembers(const XmlElement& holder, const Scope& scope) {
    for (const XmlElement& each : holder.children) {
      if (each.name == "register") readRegister(each, scope);
      if (each.name == "registerFile") readFile(each, scope);
    }
  }

  void readFile(const XmlElement& element, const Scope& scope) {
    tellOthers(import_, element,
               {"name", "displayName", "description", "dim", "addressOffset", "typeIdentifier",
                "range", "access", "volatile", "register", "registerFile"});
    import_.note(scope.prefix + std::string(element.textOf("name")), element.textOf("description"));
    const uint64_t first =
        sumAt(element.place, scope.base, inBytes(element, "addressOffset", scope));
    for (const Copy& copy : copiesIn(element, inBytes(element, "range", scope), import_)) {
      import_.spend(element.place);
      Scope own = scope.of(element);
      own.prefix += std::string(element.textOf("name")) + copy.index + "_";
      own.base = sumAt(element.place, first, copy.offset);
      readMembers(element, own);
    }
  }

  void readRegister(const XmlElement& element, const Scope& around) {
    tellOthers(import_, element,
               {"name", "displayName", "description", "dim", "addressOffset", "typeIdentifier",
                "size", "volatile", "access", "reset", "field"});
    const Scope scope = around.of(element);
    ImportedRegister common;
    common.place = element.place;
    common.width = numberOf(element, "size").value_or(scope.width);
    common.access = scope.access;
    common.description = inOneLine(element.textOf("description"));
    if (const XmlElement* reset = element.child("reset")) {
      common.reset =
          numberOf(*reset, "value").value_or(0) & numberOf(*reset, "mask").value_or(~uint64_t{0});
    }
    for (const XmlElement& each : element.children) {
      if (each.name == "field") readField(each, scope, common);
    }
    const uint64_t unitBits = scope.unitBytes * 8;
    const uint64_t step = (sumAt(element.place, common.width, unitBits - 1)) / unitBits;
    const uint64_t at = sumAt(element.place, scope.base, inBytes(element, "addressOffset", scope));
    for (const Copy& copy : copiesIn(element, step * scope.unitBytes, import_)) {
      ImportedRegister reg = common;
      reg.name = inOneLine(scope.prefix + std::string(element.textOf("name")) + copy.index);
      reg.address = sumAt(element.place, at, copy.offset);
      import_.add(std::move(reg));
    }
  }

  void readField(const XmlElement& element, const Scope& around, ImportedRegister& reg) {
    tellOthers(
        import_, element,
        {"name", "displayName", "description", "bitOffset", "bitWidth", "typeIdentifier", "resets",
         "volatile", "access", "enumeratedValues", "modifiedWriteValue", "readAction"});
    requireRoom(element.place, reg.fields.size());
    const Scope scope = around.of(element);
    ImportedField field;
    field.place = element.place;
    field.name = inOneLine(element.textOf("name"));
    const uint64_t low = numberOf(element, "bitOffset").value_or(0);
    const uint64_t size = numberOf(element, "bitWidth").value_or(1);
    if (size == 0 || size > 32 || sumAt(element.place, low, size) > reg.width || reg.width > 64) {
      return import_.remark(element.place,
                            fmt::format("field '{}' has no bits within its register's "
                                        "{}",
                                        field.name, reg.width));
    }
    field.bits = {static_cast<uint8_t>(low), static_cast<uint8_t>(size)};
    field.access = scope.access;
    if (scope.changes) field.kind = Board::FieldKind::changing;
    field.meaning.description = inOneLine(element.textOf("description"));
    tellEffects(import_, field, element.textOf("modifiedWriteValue"), element.textOf("readAction"));
    readReset(element, field, reg);
    readValues(element, field);
    reg.fields.push_back(std::move(field));
  }

  // What the register says is for all of its fields; the later standard has it with each of them.
  void readReset(const XmlElement& element, ImportedField& field, ImportedRegister& reg) {
    const XmlElement* resets = element.child("resets");
    const XmlElement* reset = resets ? resets->child("reset") : nullptr;
    if (reset && resets->children.size() > 1) {
      import_.remark(resets->place,
                     fmt::format("field '{}': only the first of its resets is held", field.name));
    }
    if (reset) {
      field.value = static_cast<uint32_t>(numberOf(*reset, "value").value_or(0) &
                                          numberOf(*reset, "mask").value_or(~uint64_t{0}));
      field.value = partOf(field.value, {0, field.bits.size});
      const uint64_t others = reg.reset.value_or(0);
      reg.reset = others | uint64_t{field.value} << field.bits.start;
    } else {
      field.value = partOf(reg.reset.value_or(0), field.bits);
    }
  }

  void readValues(const XmlElement& element, ImportedField& field) {
    const XmlElement* values = element.child("enumeratedValues");
    if (!values) return;
    for (const XmlElement& each : values->children) {
      if (each.name != "enumeratedValue") continue;
      addValue(import_, field, each.place, each.textOf("name"), each.textOf("value"));
      addNote(field, each.textOf("name"), each.textOf("description"));
    }
  }

  const XmlElement& component_;
  Import& import_;
};

}  // namespace

void readIpXact(const XmlElement& component, Import& import) {
  IpXactReader(component, import).read();
}

ImportFormat formatOf(const XmlElement& root) {
  if (root.name == "device") return ImportFormat::svd;
  if (root.name == "component") return ImportFormat::ipxact;
  if (root.name == "node") return ImportFormat::uhal;
  throw ImportError(root.place,
                    fmt::format("'{}' begins no CMSIS-SVD (device), no IP-XACT (component) and no "
                                "address table of uHAL (node)",
                                root.name));
}

}  // namespace korureg
