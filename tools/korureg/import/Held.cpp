#include "korureg/import/Held.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/RegisterFile.h"

namespace korureg {

namespace {

uint64_t bitsOf(const ImportedField& field) {
  return ((uint64_t{1} << field.bits.size) - 1) << field.bits.start;
}

class Keeper {
 public:
  Keeper(Import& import, const Holding& holding) : import_(import), holding_(holding) {}

  void keep() {
    std::vector<ImportedRegister> kept;
    for (ImportedRegister& reg : import_.map.registers) {
      if (!fits(reg)) continue;
      keepFields(reg);
      decideType(reg);
      checkReach(reg);
      kept.push_back(std::move(reg));
    }
    import_.map.registers = std::move(kept);
  }

 private:
  template <class... Args>
  bool leaveOut(const ImportedRegister& reg, fmt::format_string<Args...> why, Args&&... args) {
    import_.remark(reg.place, fmt::format("register '{}' is left out: {}", reg.name,
                                          fmt::format(why, std::forward<Args>(args)...)));
    return false;
  }

  bool fits(ImportedRegister& reg) {
    if (reg.name.empty()) return leaveOut(reg, "it has no name");
    if (reg.name.find(',') != reg.name.npos) return leaveOut(reg, "a name must not have a comma");
    if (reg.width == 0 || reg.width > 32) {
      return leaveOut(reg, "it has {} bits, and a map holds 1 to 32", reg.width);
    }
    if (reg.address < holding_.base) return leaveOut(reg, "it lies before the base");
    const uint64_t address = reg.address - holding_.base;
    if (address % holding_.step != 0) {
      return leaveOut(reg, "its address {:#x} is not a multiple of {}", address, holding_.step);
    }
    if (address > UINT32_MAX) return leaveOut(reg, "its address {:#x} exceeds 32 bits", address);
    const auto [named, nameIsNew] = byName_.try_emplace(reg.name, reg.place.line);
    if (!nameIsNew) return leaveOut(reg, "line {} has the name already", named->second);
    const auto [placed, addressIsNew] = byAddress_.try_emplace(address, reg.name);
    if (!addressIsNew) {
      byName_.erase(named);
      return leaveOut(reg, "its address is that of '{}'", placed->second);
    }
    reg.address = address / holding_.step;
    return true;
  }

  void tell(const ImportedRegister& reg, const ImportedField& field, std::string_view what) {
    import_.remark(field.place, fmt::format("field '{}' of '{}' {}", field.name, reg.name, what));
  }

  void keepFields(ImportedRegister& reg) {
    std::unordered_set<std::string> names;
    uint64_t written = 0;
    std::vector<ImportedField> kept;
    for (ImportedField& field : reg.fields) {
      const bool hasBits = field.bits.start + field.bits.size <= reg.width;
      if (field.name.empty() || !hasBits || !names.insert(field.name).second) {
        tell(reg, field,
             field.name.empty() ? "has no name"
             : hasBits          ? "is left out: there is one of that name"
                                : "is left out: it lies beyond the register");
        continue;
      }
      if (field.access.writes && (written & bitsOf(field)) != 0) {
        tell(reg, field, "shares bits with another one: it is read only");
        field.access = {true, false};
      }
      // (System files say which one is meant as REGISTER.FIELD.)
      if (field.access.writes && !joined_.insert(reg.name + "." + field.name).second) {
        tell(reg, field, "is left out: its register and it have the name of another one");
        continue;
      }
      if (field.access.writes) written |= bitsOf(field);
      if (field.readChanges) reg.readChanges = true;
      if (!field.access.reads && field.kind == Board::FieldKind::stored) {
        field.kind = Board::FieldKind::changing;  // nobody can compare it
      }
      if (!field.access.writes || Board::isSentOnce(field.kind)) field.value = 0;
      kept.push_back(std::move(field));
    }
    reg.fields = std::move(kept);
  }

  static void decideType(ImportedRegister& reg) {
    if (!reg.type.empty()) return;
    const auto& fields = reg.fields;
    const auto any = [&](auto is) { return std::any_of(fields.begin(), fields.end(), is); };
    if (!fields.empty()) {
      reg.access.reads = any([](const auto& field) { return field.access.reads; });
      reg.access.writes = any([](const auto& field) { return field.access.writes; });
    }
    const bool isHeld = fields.empty() || any([](const ImportedField& field) {
                          return field.access.writes && field.kind == Board::FieldKind::stored;
                        });
    reg.type = !reg.access.writes ? "sts" : reg.access.reads && isHeld ? "cfg" : "ctl";
  }

  // Fields of a register that the transport cannot carry would keep the agent from the chip.
  void checkReach(ImportedRegister& reg) {
    KoruRegFile::Register plain;
    plain.address = static_cast<uint32_t>(reg.address * holding_.transport.addrBlockSize());
    plain.width = static_cast<uint32_t>(reg.width);
    plain.writeable = reg.access.writes;
    plain.name = Orb::String(reg.name);
    const auto whyNotWritten = holding_.transport.whyNot(plain);
    const auto whyNotRead = holding_.transport.whyNotRead(plain);
    std::erase_if(reg.fields, [&](ImportedField& field) {
      const auto& why = field.access.writes ? whyNotWritten : whyNotRead;
      if (why) tell(reg, field, fmt::format("is left out of the system file: {}", *why));
      return why.has_value();
    });
  }

  Import& import_;
  const Holding& holding_;
  std::unordered_map<std::string, size_t> byName_;
  std::unordered_map<uint64_t, std::string> byAddress_;
  std::unordered_set<std::string> joined_;
};

}  // namespace

void keepWhatFits(Import& import, const Holding& holding) { Keeper(import, holding).keep(); }

}  // namespace korureg
