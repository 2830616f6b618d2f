#include <fmt/format.h>

#include <iterator>
#include <unordered_map>

#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/import/Exports.h"

namespace korureg {

namespace {

// What C has in the place of a name.
std::string identifier(std::string_view name) {
  std::string result;
  for (const char c : name) {
    const bool isLower = c >= 'a' && c <= 'z';
    const bool isOther = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    result += isLower ? static_cast<char>(c - 'a' + 'A') : isOther ? c : '_';
  }
  return result;
}

// A comment ends where it is meant to.
std::string comment(std::string_view text) {
  std::string result;
  for (const char c : inOneLine(text)) {
    const char last = result.empty() ? ' ' : result.back();
    if ((last == '*' && c == '/') || (last == '/' && c == '*')) result += ' ';
    result += c;
  }
  if (result.empty()) return "";
  return fmt::format("  /* {} */", result);
}

class HeaderWriter {
 public:
  explicit HeaderWriter(const ImportedMap& map) : map_(map), chip_(identifier(map.name)) {
    // (A name of C's own has no digit in front.)
    if (chip_.empty() || (chip_[0] >= '0' && chip_[0] <= '9'))
      chip_ = fmt::format("CHIP_{}", chip_);
  }

  std::string write() {
    define("", chip_ + "_REGISTERS_H", "", "");
    text_ = fmt::format("#ifndef {0}_REGISTERS_H\n#define {0}_REGISTERS_H\n", chip_);
    for (const ImportedRegister& reg : map_.registers) addRegister(reg);
    return text_ + "\n#endif\n";
  }

 private:
  void addRegister(const ImportedRegister& reg) {
    const std::string name = chip_ + "_" + identifier(reg.name);
    text_ += '\n';
    define(reg.name, name, fmt::format("0x{:x}u", reg.address),
           fmt::format("{}, {} bits, {}", reg.type, reg.width, accessText(reg.access)));
    for (const ImportedField& field : reg.fields) {
      const std::string of = name + "_" + identifier(field.name);
      const std::string said = reg.name + "." + field.name;
      const uint64_t mask = ((uint64_t{1} << field.bits.size) - 1) << field.bits.start;
      define(said, of + "_MASK", fmt::format("0x{:x}u", mask), field.meaning.description);
      define(said, of + "_SHIFT", std::to_string(field.bits.start), "");
      for (const auto& [value, raw] : field.meaning.values) {
        define(fmt::format("{} {}", said, value), fmt::format("{}_{}", of, identifier(value)),
               fmt::format("0x{:x}u", raw), "");
      }
    }
  }

  void define(const std::string& said, const std::string& name, const std::string& value,
              const std::string& remark) {
    const auto [first, isNew] = names_.try_emplace(name, said);
    if (!isNew) {
      throw Failure(fmt::format("'{}' and '{}' would both be {} in C", printable(first->second),
                                printable(said), name));
    }
    fmt::format_to(std::back_inserter(text_), "#define {} {}{}\n", name, value, comment(remark));
  }

  const ImportedMap& map_;
  std::string chip_;
  std::string text_;
  std::unordered_map<std::string, std::string> names_;
};

}  // namespace

std::string headerText(const ImportedMap& map) { return HeaderWriter(map).write(); }

}  // namespace korureg
