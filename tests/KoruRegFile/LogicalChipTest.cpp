// Logical chips by themselves: how they are described, and how registers are made of fields.

#include <gtest/gtest.h>

#include "KoruRegFile/LogicalSms.h"
#include "testing/FieldChip.h"
#include "testing/StateDirectory.h"

namespace {

using namespace KoruRegFile;

// Shifts count modulo 64, also where a field reaches the end of its register or passes it.
TEST(LogicalChip, ComposesAndTakesApartRegisters) {
  const struct {
    uint8_t start, size;
    uint64_t before;
    uint32_t extracted, written;
    uint64_t after;
  } cases[] = {
      {8, 4, 0xFFFFFFFFFFFFFFFF, 0xF, 0x1A, 0xFFFFFFFFFFFFFAFF},
      {0, 32, 0xFFFFFFFF00000001, 1, 0x80000000, 0xFFFFFFFF80000000},
      {31, 32, 0x8000000000000001, 0, 0xFFFFFFFF, 0xFFFFFFFF80000001},
      {48, 16, 0x1234000000000000, 0x1234, 0x00FF, 0x12FF000000000000},
      {63, 1, 0x8000000000000000, 1, 0, 0x8000000000000000},
      {63, 32, 0x8000000000000007, 14, 3, 0x8000000000000007},
      {63, 32, 0, 0, 3, 1},
  };
  for (const auto& [start, size, before, extracted, written, after] : cases) {
    const auto chip = logicalChipFactory("chip0");
    chip->populateLogicalField("r", "f", start, size, 0);
    chip->readyIs(true);
    chip->regWrite("r", before);
    EXPECT_EQ(chip->fieldGetLastWritten("r", "f"), extracted) << +start << ", " << +size;
    chip->fieldWrite("r", "f", written);
    EXPECT_EQ(chip->fieldGetLastWritten("r", "f"), written);
    EXPECT_EQ(chip->regGetLastWritten("r"), after) << +start << ", " << +size;
  }
}

TEST(LogicalChip, IsDescribed) {
  const auto chip = logicalChipFactory("chip0");
  EXPECT_THROW(chip->populateLogicalField("r", "f", 64, 1, 0), Orb::RangeException);
  EXPECT_THROW(chip->populatePhysicalField("r", "f", 0, 33), Orb::RangeException);
  EXPECT_TRUE(chip->initialized());
  EXPECT_TRUE(chip->regColl().empty());
  EXPECT_EQ(chip->physicalFieldCount(), 0u);
  chip->populateLogicalField("r", "f", 0, 8, 0xFF);
  chip->populateLogicalField("r", "f", 8, 4, 1);
  EXPECT_EQ(chip->regColl(LogicalRegisterName("chip0", "r")).value(), 0x1FFu);
  EXPECT_EQ(chip->logicalField().size(), 1u);
  chip->populatePhysicalField("P", "f", 3, 8);
  chip->populatePhysicalField("P", "f", 4, 8);
  EXPECT_EQ(chip->physicalFieldCount(), 2u);
  const PhysicalFieldName name(PhysicalRegisterName("chip0", "P"), "f");
  EXPECT_EQ(name.fullName(), "chip0-P-f");
  EXPECT_EQ(chip->physicalField(name).key(), ShadowFieldKey(1, 4, 8));
  EXPECT_EQ(chip->shadowToPhysicalName({0, 3, 8}), name);
  // One logical field to two physical ones: the later forward, both back.
  chip->translation()->populate("r", "f", "P", "g");
  chip->translation()->populate("r", "f", "P", "f");
  const LogicalFieldName logical(LogicalRegisterName("chip0", "r"), "f");
  EXPECT_EQ(chip->translation()->getPhysicalFieldName(logical), name);
  EXPECT_EQ(chip->translation()->physicalToLogical().size(), 2u);
  EXPECT_EQ(chip->translation()->getLogicalFieldName(name), logical);
}

// The chip's own loops stand what a reactor does to the collection that they go through.
TEST(LogicalChip, ItsLoopsStandChangesByReactors) {
  struct Reactor : ShadowFieldsConfig::Notifiee {
    Reactor(LogicalChip& c, bool logical)
        : Notifiee(c.shadowFieldsConfig()),
          chip(c),
          isLogical(logical),
          nextPhysical(std::next(c.physicalField().begin())->first),
          nextLogical(std::next(c.logicalField().begin())->first) {
      hasNotificationActiveIs(true);
    }
    void onField(const ShadowFieldKey& key) override {
      told.push_back(key.address());
      if (told.size() != 1) return;
      // What the loop is at comes back, the next one does not.
      if (isLogical) {
        const auto logical = chip.logicalField().begin()->second;
        chip.logicalFieldDel(logical.name());
        chip.logicalFieldIs(logical);
        chip.logicalFieldDel(nextLogical);
      } else {
        const auto physical = chip.physicalField().begin()->second;
        chip.physicalFieldDel(physical.name());
        chip.physicalFieldIs(physical);
        chip.physicalFieldDel(nextPhysical);
      }
    }
    LogicalChip& chip;
    const bool isLogical;
    const PhysicalFieldName nextPhysical;
    const LogicalFieldName nextLogical;
    std::vector<uint32_t> told;
  };
  const Testing::StateDirectory state;
  const auto manager = OrbPool::entityManagerFactory();
  const auto chip = logicalChipFactory("chip0");
  Testing::describe(*chip, Testing::threeFields, 1);
  chip->mountShadowFields(manager, "c", "s");
  {
    Reactor reactor(*chip, false);
    chip->mountShadowFields(manager, "c", "s");
    EXPECT_EQ(reactor.told.size(), 2u);
  }
  const auto writeSm = logicalWriteSmFactory(chip);
  writeSm->hasNotificationActiveIs(false);
  chip->shadowFieldsConfig()->fieldDelAll();
  Reactor reactor(*chip, true);
  writeSm->handleLogicalField();
  EXPECT_EQ(reactor.told.size(), 2u);
}

// A field that goes, or gets other bits, while its register is told of is written as it was.
TEST(LogicalChip, WritesAFieldWhateverAReactionMakesOfIt) {
  struct Reactor : LogicalChip::Notifiee {
    Reactor(Orb::Ptr<LogicalChip> chip, bool moves) : Notifiee(std::move(chip)), isMoving(moves) {
      hasNotificationActiveIs(true);
    }
    void onRegColl(const LogicalRegisterName&) override {
      const LogicalField field = notifier()->logicalField().begin()->second;
      if (isMoving) return notifier()->logicalFieldIs({field.name(), 20, 2, 0});
      notifier()->logicalFieldDel(field.name());
    }
    const bool isMoving;
  };
  for (const bool isMoving : {false, true}) {
    const auto chip = logicalChipFactory("chip0");
    chip->populateLogicalField("r", "f", 4, 8, 1);
    chip->readyIs(true);
    const Reactor reactor(chip, isMoving);
    chip->fieldWrite("r", "f", 0x123);
    const LogicalField& written = chip->logicalField().begin()->second;
    EXPECT_EQ(written, LogicalField(written.name(), 4, 8, 0x123));
    EXPECT_EQ(chip->regGetLastWritten("r"), 0x230u);
  }
}

}  // namespace
