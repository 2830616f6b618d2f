#pragma once

// A chip with fields, described as an agent would, over a transport that keeps a ledger. For tests
// of the road from a field to its register.

#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "KoruRegFile/LogicalChip.h"
#include "KoruRegFile/TransportMethod.h"
#include "testing/MemoryTransport.h"
#include "testing/TempFile.h"

namespace Testing {

// A logical field and the physical field that it stands for.
struct FieldPlace {
  const char* reg;
  const char* field;
  uint8_t start;
  uint8_t size;
  uint32_t address;  // of the register that has it, with the bits below
  uint8_t physicalStart;
  uint8_t physicalSize;
};

// Field a, b and c of the logical register ctrl lie in the registers r0, r0 and r1.
inline const std::vector<FieldPlace> threeFields = {
    {"ctrl", "a", 0, 8, 0, 0, 8}, {"ctrl", "b", 8, 4, 0, 8, 4}, {"ctrl", "c", 48, 16, 1, 0, 16}};

// Populates fields, and keys each physical one by its register's address. They are called by the
// logical names in capital letters: here P- is put in front.
inline void describe(KoruRegFile::LogicalChip& chip, const std::vector<FieldPlace>& places,
                     uint32_t value = 0) {
  using namespace KoruRegFile;
  for (const FieldPlace& place : places) {
    const Orb::String pField = "P-" + std::string(place.field);
    chip.populateLogicalField(place.reg, place.field, place.start, place.size, value);
    chip.populatePhysicalField("P", pField, place.physicalStart, place.physicalSize);
    chip.translation()->populate(place.reg, place.field, "P", pField);
    const PhysicalFieldName name(PhysicalRegisterName(chip.name(), "P"), pField);
    PhysicalField physical = chip.physicalField(name);
    chip.shadowToPhysicalNameDel(physical.key());
    physical.keyIs({place.address, place.physicalStart, place.physicalSize});
    chip.physicalFieldIs(physical);
    chip.shadowToPhysicalNameIs(physical.key(), name);
  }
}

// A transport with registers r0, r1, ... at the addresses 0, 1, ...
class LedgerTransport {
 public:
  explicit LedgerTransport(const Orb::String& name = "chip0", size_t registers = 4)
      : method(KoruRegFile::transportMethodFactory(name)) {
    registersAre(registers);
  }
  // Begins anew, with an empty ledger.
  void registersAre(size_t registers) {
    std::string map = "number,name,type,writeable,width\n";
    for (size_t i = 0; i < registers; ++i) map += fmt::format("{0},r{0},cfg,true,32\n", i);
    auto made = std::make_unique<MemoryTransport>(TempFile(map).path(), uint8_t{1});
    memory = made.get();
    method->implPtrIs(std::move(made));
  }
  const std::vector<std::string>& ledger() const { return memory->ledger(); }

  const Orb::Ptr<KoruRegFile::TransportMethod> method;
  MemoryTransport* memory = nullptr;
};

}  // namespace Testing
