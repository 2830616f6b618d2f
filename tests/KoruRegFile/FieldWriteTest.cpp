// The road of a field write: logical chip, configuration table, register, status table.

#include <gmock/gmock.h>

#include <functional>

#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/ShadowSms.h"
#include "testing/Expect.h"
#include "testing/FieldChip.h"
#include "testing/RecordingTraceSink.h"
#include "testing/StateDirectory.h"

namespace {

using namespace KoruRegFile;
using testing::ElementsAre;
using testing::IsEmpty;

const ShadowFieldKey aKey{0, 0, 8}, bKey{0, 8, 4}, cKey{1, 0, 16};

class FieldWrite : public testing::Test {
 protected:
  FieldWrite() { bringUp(0); }

  // As after a restart of the process: everything is made anew but the tables.
  void bringUp(uint32_t value) {
    shadowSm.reset();
    writeSm.reset();
    chip = logicalChipFactory("chip0");
    Testing::describe(*chip, Testing::threeFields, value);
    chip->mountShadowFields(manager, "config/chip0", "status/chip0");
    chip->readyIs(true);
    writeSm = logicalWriteSmFactory(chip);
    startReactor();
  }
  void startReactor() {
    shadowSm.reset();
    transport.registersAre(4);
    shadowSm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(),
                                     transport.method, false);
  }
  uint32_t recorded(const ShadowFieldKey& key) const {
    return chip->shadowFieldsStatus()->field(key).value();
  }
  // The transport's ledger, and what the status table has of a, b and c.
  void expectWritten(const std::vector<std::string>& ledger, const std::vector<uint32_t>& status) {
    EXPECT_EQ(transport.ledger(), ledger);
    EXPECT_THAT(status, ElementsAre(recorded(aKey), recorded(bKey), recorded(cKey)));
    startReactor();
    EXPECT_THAT(transport.ledger(), IsEmpty()) << "the tables agree, yet a restart writes";
  }

  const Testing::StateDirectory state;
  const Orb::Ptr<OrbPool::EntityManager> manager = OrbPool::entityManagerFactory();
  Testing::LedgerTransport transport;
  Orb::Ptr<LogicalChip> chip;
  Orb::Ptr<LogicalWriteSm> writeSm;
  Orb::Ptr<ShadowFieldsSm> shadowSm;
};

TEST_F(FieldWrite, WritesARegisterWhenItsBitsChange) {
  const struct {
    const char* field;
    uint32_t value;
    std::vector<std::string> ledger;
  } steps[] = {{"a", 0, {}},
               {"a", 5, {"write r0 5"}},
               {"a", 5, {}},
               {"b", 3, {"write r0 773"}},
               {"a", 0x2FF, {"write r0 1023"}},
               {"a", 0x1FF, {}}};
  for (const auto& [field, value, ledger] : steps) {
    transport.registersAre(4);
    chip->fieldWrite("ctrl", field, value);
    EXPECT_EQ(transport.ledger(), ledger) << field << value;
    EXPECT_EQ(recorded(*field == 'a' ? aKey : bKey), value);
  }
  expectWritten({}, {0x1FF, 3, 0});
}

TEST_F(FieldWrite, ARegisterIsWrittenFieldByField) {
  chip->regWrite("ctrl", 0xFFFF0000000003AB);
  expectWritten({"write r0 171", "write r0 939", "write r1 65535"}, {0xAB, 3, 0xFFFF});
}

TEST_F(FieldWrite, ADeletedFieldCountsAsZero) {
  chip->fieldWrite("ctrl", "a", 5);
  chip->fieldWrite("ctrl", "b", 1);
  chip->shadowFieldsConfig()->fieldDel(aKey);
  expectWritten({"write r0 5", "write r0 261", "write r0 256"}, {0, 1, 0});
}

TEST_F(FieldWrite, ARestartWritesWhatDiffers) {
  chip->fieldWrite("ctrl", "a", 5);
  chip->fieldWrite("ctrl", "b", 5);
  shadowSm.reset();
  chip->fieldWrite("ctrl", "b", 6);
  startReactor();
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 1541"));
  // The mount gives every field the value 0 first; the chip's own values follow.
  bringUp(5);
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 1285", "write r1 5"));
  bringUp(5);
  EXPECT_THAT(transport.ledger(), IsEmpty());
  // An empty status.
  chip->shadowFieldsStatus()->fieldDelAll();
  chip->fieldWrite("ctrl", "c", 0);
  startReactor();
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 1285"));
  EXPECT_TRUE(chip->shadowFieldsStatus()->fieldHas(cKey));
}

TEST_F(FieldWrite, RecordsAFieldAlsoWhenNothingIsWritten) {
  chip->fieldWrite("ctrl", "a", 5);
  chip->shadowFieldsStatus()->fieldDel(aKey);
  chip->shadowFieldsConfig()->fieldIs({aKey, 5});
  EXPECT_EQ(recorded(aKey), 5u);
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 5"));
}

// What the table does not hold counts as 0.
TEST_F(FieldWrite, TheTableIsWrittenOnlyWhenTheValueDiffers) {
  const auto writes = [before = Testing::counted("config/chip0", "fieldIs")] {
    return Testing::counted("config/chip0", "fieldIs") - before;
  };
  chip->fieldWrite("ctrl", "a", 5);
  chip->fieldWrite("ctrl", "a", 5);
  EXPECT_EQ(writes(), 1u);
  chip->shadowFieldsConfig()->fieldDel(cKey);
  chip->fieldWrite("ctrl", "c", 0);
  EXPECT_EQ(writes(), 1u);
  EXPECT_FALSE(chip->shadowFieldsConfig()->fieldHas(cKey));
}

TEST_F(FieldWrite, AFailedAccessIsTheTransportsToTell) {
  transport.memory->faultIs("r0", [] { throw std::runtime_error("no answer"); });
  const Testing::RecordedTraces traces("tryPerformIO", 0);
  chip->fieldWrite("ctrl", "a", 5);
  EXPECT_EQ(traces.messages().size(), 2u);
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0"));
  EXPECT_EQ(shadowSm->regStatus()(0u), 5u);
  EXPECT_EQ(recorded(aKey), 5u);
}

TEST_F(FieldWrite, ARegisterThatIsNotThereIsTriedAgainAtTheNextChange) {
  transport.registersAre(1);
  EXPECT_EQ(Testing::failure([&] { chip->fieldWrite("ctrl", "c", 5); }),
            "RegisterFile does not have address: 1!");
  EXPECT_EQ(chip->fieldGetLastWritten("ctrl", "c"), 5u);
  EXPECT_EQ(chip->shadowFieldsConfig()->field(cKey).value(), 5u);
  EXPECT_EQ(shadowSm->regConfig()(1u), 5u);
  EXPECT_FALSE(shadowSm->regStatus().has(1u));
  EXPECT_EQ(recorded(cKey), 0u);
  transport.registersAre(2);
  chip->shadowFieldsConfig()->fieldIs({cKey, 5});
  EXPECT_THAT(transport.ledger(), ElementsAre("write r1 5"));
  EXPECT_EQ(recorded(cKey), 5u);
}

TEST_F(FieldWrite, ReactorsNeedWhatTheyWorkOn) {
  const auto config = chip->shadowFieldsConfig();
  const auto status = chip->shadowFieldsStatus();
  EXPECT_THROW(shadowFieldsSmFactory(config, nullptr, transport.method, false), std::logic_error);
  EXPECT_THROW(shadowFieldsSmFactory(config, status, nullptr, false), std::logic_error);
  EXPECT_THROW(shadowFieldsSmFactory(nullptr, status, nullptr, true)->handleShadowField(aKey),
               std::logic_error);
  EXPECT_THROW(logicalWriteSmFactory(nullptr), std::logic_error);
  const auto bare = logicalChipFactory("bare");
  EXPECT_THROW(bare->mountShadowFields(nullptr, "c", "s"), std::logic_error);
  Testing::describe(*bare, Testing::threeFields);
  EXPECT_THROW(logicalWriteSmFactory(bare), std::logic_error);
}

TEST_F(FieldWrite, AFieldWithoutAPhysicalOneIsSkipped) {
  chip->physicalFieldDel(PhysicalFieldName(PhysicalRegisterName("chip0", "P"), "P-a"));
  const Testing::RecordedTraces traces("LogicalWriteSm", 0);
  chip->regWrite("ctrl", 0x101);
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 256"));
  EXPECT_THAT(traces.texts(),
              ElementsAre(testing::StartsWith("No physicalField mapping to Value(")));
}

// The reactor that goes in the middle of its own reaction takes nothing down with it.
TEST_F(FieldWrite, OutlivesAReactorThatGoesWhileItWrites) {
  transport.memory->faultIs("r0", [this] {
    shadowSm.reset();
    writeSm.reset();
  });
  chip->fieldWrite("ctrl", "a", 5);
  EXPECT_EQ(recorded(aKey), 5u);
  chip->fieldWrite("ctrl", "a", 6);
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 5"));
}

TEST_F(FieldWrite, StopsAtWrongUse) {
  const auto raw = logicalChipFactory("raw");
  const char* const tooLate = "Populating fields after chip ready is not allowed!: !ready";
  const char* const tooEarly = "LogicalChip raw is not populated yet!: ready";
  const auto unknown = LogicalFieldName(LogicalRegisterName("chip0", "ctrl"), "z");
  const struct {
    std::function<void()> use;
    const char* message;
  } wrong[] = {
      {[&] { chip->populateLogicalField("r", "f", 0, 1, 0); }, tooLate},
      {[&] { chip->populatePhysicalField("r", "f", 0, 1); }, tooLate},
      {[&] { raw->fieldWrite("ctrl", "a", 1); }, tooEarly},
      {[&] { raw->regGetLastWritten("ctrl"); }, tooEarly},
      {[&] { chip->regWrite("gone", 1); },
       "LogicalRegister chip0-gone is not populated yet!: regCollHas\\( lrName \\)"},
      {[&] { chip->fieldGetLastWritten("ctrl", "z"); },
       "LogicalRegister chip0-ctrl does not have field z: lReg.fieldHas\\( lfName \\) && "
       "logicalFieldHas\\( lfName \\)"},
      {[&] { chip->translation()->getPhysicalFieldName(unknown); },
       "No physicalField name mapping to .*chip0-ctrl-z.*: logicalToPhysicalHas\\( lfName \\)"},
      {[&] { chip->translation()->getLogicalFieldName(PhysicalFieldName()); },
       "No logicalField mapping to .*: physicalToLogicalHas\\( pfName \\)"},
      {[&] { chip->logicalFieldIs(LogicalField(unknown, 0, 1, 0)); },
       "No physicalField name mapping to "},
      {[&] {
         raw->populatePhysicalField("P", "f", 0, 1);
         raw->mountShadowFields(manager, "config/raw", "status/raw");
       },
       "No logicalField mapping to "},
      {[] { bitStreamSet(0, 0, 80, 0); }, "startSlice >= endSlice - 8"},
      {[] { bitStreamSet(0, 0, 64, 0); }, "len < 64"},
  };
  for (const auto& [use, message] : wrong) EXPECT_DEATH(use(), message);
}

TEST(BitStreamSet, KeepsTo32Bits) {
  const struct {
    uint32_t before, start, len, value, after;
  } cases[] = {
      {0xFFFFFFFF, 0, 32, 0x12345678, 0x12345678},
      {0xFFFFFFFF, 4, 8, 0x1000, 0xFFFFF00F},
      {0, 7, 10, 0xFFFFFFFF, 0x1FF80},
      {0, 31, 1, 3, 0x80000000},
      {0x0FFFFFFF, 28, 8, 0xAB, 0xBFFFFFFF},
      {0xFFFFFFFF, 31, 32, 0, 0x7FFFFFFF},
      {0xFFFFFFFF, 0, 63, 1, 1},
      {5, 8, 0, 0xFF, 5},
  };
  for (const auto& [before, start, len, value, after] : cases) {
    EXPECT_EQ(bitStreamSet(before, static_cast<uint8_t>(start), static_cast<uint8_t>(len), value),
              after)
        << start << ", " << len;
  }
}

// The configuration is written by somebody else, who comes and goes; the reactor here only reads
// it.
TEST(ShadowFieldsSm, FollowsAConfigurationOfSomebodyElse) {
  const Testing::StateDirectory state;
  const auto manager = OrbPool::entityManagerFactory();
  const auto group = manager->mountGroup();
  const auto config = Orb::dynamic_pointer_cast<ShadowFieldsConfig>(
      group->mount("KoruRegFile::ShadowFieldsConfig", "config/chip0", OrbPool::mountReader));
  const auto status = Orb::dynamic_pointer_cast<ShadowFieldsStatus>(
      group->mount("KoruRegFile::ShadowFieldsStatus", "status/chip0", OrbPool::mountWriter));
  group->close();
  Testing::LedgerTransport transport;
  for (const uint32_t b : {3u, 4u}) {
    transport.registersAre(4);
    const auto shadowSm = shadowFieldsSmFactory(config, status, transport.method, false);
    EXPECT_THAT(transport.ledger(), IsEmpty());
    const auto chip = logicalChipFactory("chip0");
    Testing::describe(*chip, Testing::threeFields);
    chip->mountShadowFields(OrbPool::entityManagerFactory(), "config/chip0", "unused");
    chip->readyIs(true);
    const auto writeSm = logicalWriteSmFactory(chip);
    chip->regWrite("ctrl", uint64_t{1} << 48 | b << 8 | 5);
    Testing::waitFor([&] {
      return shadowSm->regStatus()(0u) == (b << 8 | 5) && shadowSm->regStatus()(1u) == 1 &&
             config->fieldControl()->quiesced();
    });
    EXPECT_EQ(status->field(bKey).value(), b);
  }
}

}  // namespace
