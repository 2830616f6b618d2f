// CMSIS-SVD: peripherals, clusters and registers of a device.

#include <fmt/format.h>

#include <unordered_map>

#include "KoruRegFile/RegisterFile.h"
#include "korureg/import/Readers.h"
#include "korureg/import/SvdFields.h"
#include "korureg/import/SvdTree.h"

namespace korureg {

namespace {

// What a register has of what it lies in, unless it says otherwise.
struct Scope {
  std::string prefix;
  uint64_t base = 0;
  SvdDefaults defaults;
};

class SvdReader {
 public:
  SvdReader(const XmlElement& device, Import& import) : device_(device), import_(import) {}

  void read() {
    tellOthers(import_, device_,
               {"name", "description", "version", "vendor", "vendorID", "series", "licenseText",
                "headerSystemFilename", "headerDefinitionsPrefix", "addressUnitBits", "width",
                "size", "access", "resetValue", "resetMask", "peripherals", "vendorExtensions"});
    readTypes();
    import_.map.name = inOneLine(device_.textOf("name"));
    import_.note(device_.textOf("name"), device_.textOf("description"));
    const uint64_t unit = numberOf(device_, "addressUnitBits").value_or(8);
    if (unit == 0 || unit % 8 != 0 || unit > 64) {
      throw ImportError(device_.place, fmt::format("addressUnitBits of {} are no bytes", unit));
    }
    unitBytes_ = unit / 8;
    const XmlElement* peripherals = device_.child("peripherals");
    if (!peripherals) throw ImportError(device_.place, "the device has no peripherals");
    const Scope scope{"", 0, SvdDefaults().of({&device_})};
    const auto all = members({peripherals}, "", {"peripheral"});
    for (const XmlElement* each : all) readPeripheral(*each, scope, all.size() > 1);
  }

 private:
  // What an export of a map says beside: accesses alone do not tell the types.
  void readTypes() {
    const XmlElement* extensions = device_.child("vendorExtensions");
    if (!extensions) return;
    tellOthers(import_, *extensions, {"registerType"});
    for (const XmlElement& each : extensions->children) {
      const std::string* name = each.attribute("name");
      const std::string* type = each.attribute("type");
      const bool isType = type && KoruRegFile::Register::regTypeFromString(*type) !=
                                      KoruRegFile::RegisterType::unknown;
      if (each.name == "registerType" && name && isType) types_.emplace(*name, *type);
    }
  }

  uint64_t bytes(const FilePlace& place, std::optional<uint64_t> units) const {
    return productAt(place, units.value_or(0), unitBytes_);
  }

  void readPeripheral(const XmlElement& element, const Scope& device, bool isOneOfMany) {
    tellOthers(import_, element,
               {"name", "description", "version", "groupName", "prependToName", "appendToName",
                "headerStructName", "baseAddress", "size", "access", "resetValue", "resetMask",
                "addressBlock", "registers", "dim", "dimIncrement", "dimIndex", "dimName"});
    const SvdChain chain = chainOf(element, import_);
    import_.note(element.textOf("name"), inheritedText(chain, "description"));
    const uint64_t base = bytes(element.place, inheritedNumber(chain, "baseAddress"));
    for (const Copy& copy : copiesOf(element, import_)) {
      const uint64_t at = sumAt(element.place, base, bytes(element.place, copy.offset));
      const std::string name = named(element.textOf("name"), copy);
      const bool hasPrefix = isOneOfMany || import_.namesBlocks || !copy.index.empty();
      readMembers(chain, "registers", {hasPrefix ? name + "_" : "", at, device.defaults.of(chain)});
    }
  }

  void readMembers(const SvdChain& chain, std::string_view container, const Scope& scope) {
    for (const XmlElement* each : members(chain, container, {"register", "cluster"})) {
      import_.spend(each->place);
      each->name == "cluster" ? readCluster(*each, scope) : readRegister(*each, scope);
    }
  }

  void readCluster(const XmlElement& element, const Scope& scope) {
    tellOthers(
        import_, element,
        {"name", "description", "headerStructName", "addressOffset", "size", "access", "resetValue",
         "resetMask", "register", "cluster", "dim", "dimIncrement", "dimIndex", "dimName"});
    import_.note(scope.prefix + std::string(element.textOf("name")), element.textOf("description"));
    const SvdChain chain = chainOf(element, import_);
    if (++depth_ > 64) throw ImportError(element.place, "more than 64 clusters in each other");
    const uint64_t offset = bytes(element.place, inheritedNumber(chain, "addressOffset"));
    for (const Copy& copy : copiesOf(element, import_)) {
      const uint64_t at = sumAt(element.place, sumAt(element.place, scope.base, offset),
                                bytes(element.place, copy.offset));
      readMembers(
          chain, "",
          {scope.prefix + named(element.textOf("name"), copy) + "_", at, scope.defaults.of(chain)});
    }
    --depth_;
  }

  void readRegister(const XmlElement& element, const Scope& scope) {
    tellOthers(import_, element,
               {"name", "displayName", "description", "addressOffset", "size", "access",
                "resetValue", "resetMask", "modifiedWriteValues", "readAction", "fields", "dim",
                "dimIncrement", "dimIndex", "dimName"});
    const SvdChain chain = chainOf(element, import_);
    const SvdDefaults own = scope.defaults.of(chain);
    const uint64_t offset = bytes(element.place, inheritedNumber(chain, "addressOffset"));
    ImportedRegister common;
    common.place = element.place;
    common.width = own.size;
    common.access = own.access;
    common.reset = own.resetBits();
    common.readChanges = !inheritedText(chain, "readAction").empty();
    common.fields = readSvdFields(chain, own, import_);
    const bool isPlain = own.modified.empty() || own.modified == "modify";
    if (!isPlain && common.fields.empty() && own.access.writes) common.type = "ctl";
    for (const Copy& copy : copiesOf(element, import_)) {
      ImportedRegister reg = common;
      reg.name = inOneLine(scope.prefix + named(element.textOf("name"), copy));
      reg.description = inOneLine(named(inheritedText(chain, "description"), copy));
      reg.address = sumAt(element.place, sumAt(element.place, scope.base, offset),
                          bytes(element.place, copy.offset));
      if (const auto type = types_.find(reg.name); type != types_.end()) reg.type = type->second;
      import_.add(std::move(reg));
    }
  }

  const XmlElement& device_;
  Import& import_;
  std::unordered_map<std::string, std::string> types_;  // by register
  uint64_t unitBytes_ = 1;
  unsigned depth_ = 0;
};

}  // namespace

void readSvd(const XmlElement& device, Import& import) { SvdReader(device, import).read(); }

}  // namespace korureg
