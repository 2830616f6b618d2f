#include "board/chips/internal/LogicalChipOf.h"

#include "board/chips/internal/ChipTables.h"

namespace Board {

namespace {

void populate(KoruRegFile::LogicalChip& chip, const Chip& description, const ChipTables& tables) {
  for (const Field& field : description.fields) {
    chip.populateLogicalField(field.logicalRegister, field.logicalField, field.logical.start,
                              field.logical.size, tables.valueOf(field));
    chip.populatePhysicalField(field.physicalRegister, field.physicalField, field.physical.start,
                               field.physical.size);
    chip.translation()->populate(field.logicalRegister, field.logicalField, field.physicalRegister,
                                 field.physicalField);
  }
}

// The chip has numbered its fields; the reactor takes these numbers for register addresses.
void giveAddresses(KoruRegFile::LogicalChip& chip, const Chip& description) {
  chip.shadowToPhysicalNameDelAll();
  for (const Field& field : description.fields) {
    const auto name =
        chip.translation()->physicalFieldName(field.physicalRegister, field.physicalField);
    KoruRegFile::PhysicalField physical = chip.physicalField(name);
    physical.keyIs(field.key());
    chip.physicalFieldIs(physical);
    chip.shadowToPhysicalNameIs(field.key(), name);
  }
}

}  // namespace

MadeChip logicalChipOf(const Chip& description, const ChipFiles& files,
                       const Orb::Ptr<OrbPool::EntityManager>& manager) {
  ChipTables tables(manager, description, files);
  const auto chip = KoruRegFile::logicalChipFactory(description.name);
  populate(*chip, description, tables);
  giveAddresses(*chip, description);
  chip->mountShadowFields(manager, configPath(description.name), statusPath(description.name));
  tables.agree(description);
  return {chip, tables.rewrite()};
}

}  // namespace Board
