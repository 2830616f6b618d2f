// Registers and fields that were looked up once: what an access by handle has in common with one by
// name, and what becomes of a handle when the things behind it go or change.

#include <gmock/gmock.h>

#include <stdexcept>

#include "KoruRegFile/AwaitAccess.h"
#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/ShadowSms.h"
#include "testing/Expect.h"
#include "testing/FieldChip.h"
#include "testing/RecordingTraceSink.h"
#include "testing/RegisterWindow.h"
#include "testing/StateDirectory.h"

namespace {

using namespace KoruRegFile;
using testing::ElementsAre;
using Testing::failure;
using testing::HasSubstr;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "0,status,sts,false,16\n"
    "1,control,ctl,true,32\n";

class RegisterHandles : public testing::Test {
 protected:
  RegisterHandles() { memory(csv); }
  Testing::MemoryTransport* memory(const Testing::TempFile& file) {
    auto owned = std::make_unique<Testing::MemoryTransport>(file.path());
    auto* made = owned.get();
    tm->implPtrIs(std::move(owned));
    return made;
  }

  const Testing::TempFile csv{map};
  Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  const Testing::RecordedTraces traces{"tryPerformIO", 0};
};

TEST_F(RegisterHandles, AccessWhatTheirNameStandsFor) {
  auto* transport = memory(csv);
  const RegisterHandle control = tm->reg("control");
  control.write(5);
  EXPECT_EQ(tm->regRead("control"), 5u);
  EXPECT_EQ(control.read(), 5u);
  AccessOutcome outcome;
  control.writeOutcome(7, [&](const AccessOutcome& o) { outcome = o; });
  EXPECT_TRUE(outcome.isDone());
  control.readOutcome([&](const AccessOutcome& o) { outcome = o; });
  EXPECT_EQ(outcome.value, 7u);
  EXPECT_THAT(transport->ledger(),
              ElementsAre("write control 5", "read control 5", "read control 5", "write control 7",
                          "read control 7"));
  EXPECT_EQ(Testing::counted("chip0", "regRead"), 3u);
  EXPECT_EQ(Testing::counted("chip0", "regWrite"), 2u);
}

TEST_F(RegisterHandles, TellAFailureAsANameDoes) {
  auto* transport = memory(csv);
  const RegisterHandle control = tm->reg("control");
  const RegisterHandle unknown[] = {tm->reg("nobody"), tm->reg(std::string_view("control\0", 8))};
  for (const RegisterHandle& handle : unknown) {
    const auto error = tm->errorNotifierIs(handle.name());
    EXPECT_FALSE(handle);
    EXPECT_EQ(handle.read(), failedReadValue);
    EXPECT_TRUE(error->error());
    EXPECT_THAT(tm->lastFailure().reason, HasSubstr("does not have register"));
  }
  transport->faultIs("control", [] { throw std::runtime_error("not now"); });
  const auto error = tm->errorNotifierIs("chip0");
  control.write(1);
  EXPECT_TRUE(error->error());
  EXPECT_EQ(traces.texts().back(), "TransportMethod exception caught, Notifying agent: chip0");
  EXPECT_THAT(traces.texts(),
              testing::Contains("TransportMethod error on register 'control': not now"));
  EXPECT_EQ(Testing::counted("chip0", "regFail"), 3u);
}

// What is accessed is always what the name stands for now.
TEST_F(RegisterHandles, FollowTheirName) {
  const RegisterHandle handle = tm->reg("control");
  handle.write(1);
  const Testing::TempFile moved("number,name,type,writeable,width\n9,control,cfg,true,32\n");
  auto* transport = memory(moved);
  EXPECT_EQ(handle.read(), 0u);
  EXPECT_THAT(transport->ledger(), ElementsAre("read control 0"));

  const Testing::RegisterWindow window(64);
  for (uint32_t i = 0; i < 16; ++i) window.at(4 * i);
  const auto model = Hardware::KoruRegFile::hardwareRegisterFileFactory("model");
  const auto place = [&](uint32_t address) {
    model->regIs(
        {"control", Hardware::KoruRegFile::HardwareRegisterType::cfg, true, address, 32, 32});
  };
  place(4);
  tm->implPtrIs(std::make_unique<PciTransportMethodImpl>(
      Plat::pciPaxImplFactory("pci0", window.path()), "", model));
  handle.write(0x11);
  place(8);
  handle.write(0x22);
  EXPECT_EQ(window.at(4), 0x11u);
  EXPECT_EQ(window.at(8), 0x22u);
  model->regDel("control");
  EXPECT_EQ(handle.read(), failedReadValue);
  place(4);
  EXPECT_EQ(handle.read(), 0x11u);
  // Another map of the same helper, that has changed as often.
  const auto helper = tm->implPtr()->regFileHelper();
  const auto other = Hardware::KoruRegFile::hardwareRegisterFileFactory("other");
  for (uint64_t i = 0; i < model->changes(); ++i) {
    other->regIs({"control", Hardware::KoruRegFile::HardwareRegisterType::cfg, true, 8, 32, 32});
  }
  helper->init("", 4, other);
  EXPECT_EQ(handle.read(), 0x22u);
}

TEST_F(RegisterHandles, OutliveTheirTransport) {
  auto* transport = memory(csv);
  RegisterHandle handle = tm->reg("control");
  struct Dropping : TransportMethodError::Notifiee {
    Dropping(const Orb::Ptr<TransportMethodError>& error, std::function<void()> d)
        : Notifiee(error), drop(std::move(d)) {
      hasNotificationActiveIs(true);
    }
    void onError() override { drop(); }
    std::function<void()> drop;
  };
  // Whoever hears of the failure may throw the handle away.
  const Dropping dropping(tm->errorNotifierIs("chip0"), [&] { handle = RegisterHandle(); });
  transport->faultIs("control", [] { throw std::runtime_error("not now"); });
  const RegisterHandle kept = handle;
  handle.write(1);
  EXPECT_FALSE(handle);
  tm->implPtrIs(nullptr);
  EXPECT_FALSE(kept);
  EXPECT_EQ(failure([&] { kept.read(); }), "TransportMethod implementation does not exist");
  tm = nullptr;
  EXPECT_FALSE(kept);
  const std::string gone = "register 'control' cannot be accessed: its transport is gone";
  EXPECT_EQ(failure([&] { kept.read(); }), gone);
  EXPECT_EQ(failure([&] { kept.write(1); }), gone);
  EXPECT_EQ(failure([&] { kept.readOutcome([](const auto&) {}); }), gone);
  EXPECT_EQ(failure([&] { kept.writeOutcome(1, [](const auto&) {}); }), gone);
}

class FieldHandles : public testing::Test {
 protected:
  FieldHandles() {
    Testing::describe(*chip, Testing::threeFields);
    chip->mountShadowFields(manager, "config", "status");
    chip->readyIs(true);
    writeSm = logicalWriteSmFactory(chip);
    shadowSm = shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(),
                                     transport.method, false);
  }

  const Testing::StateDirectory state;
  const Orb::Ptr<OrbPool::EntityManager> manager = OrbPool::entityManagerFactory();
  Orb::Ptr<LogicalChip> chip = logicalChipFactory("chip0");
  const Testing::LedgerTransport transport;
  Orb::Ptr<LogicalWriteSm> writeSm;
  Orb::Ptr<ShadowFieldsSm> shadowSm;
};

TEST_F(FieldHandles, WriteAsANameDoes) {
  struct Watcher : LogicalChip::Notifiee {
    explicit Watcher(const Orb::Ptr<LogicalChip>& c) : Notifiee(c) {
      hasNotificationActiveIs(true);
    }
    void onRegColl(const LogicalRegisterName& name) override { told.emplace_back(name.fullName()); }
    void onLogicalField(const LogicalFieldName& name) override {
      told.emplace_back(name.fullName());
    }
    std::vector<std::string> told;
  };
  const Watcher watcher(chip);
  const LogicalFieldHandle b = chip->field("ctrl", "b");
  EXPECT_EQ(b.name().fullName(), "chip0-ctrl-b");
  b.write(0x1F);
  chip->fieldWrite("ctrl", "a", 1);
  EXPECT_EQ(b.lastWritten(), 0x1Fu);
  EXPECT_EQ(chip->fieldGetLastWritten("ctrl", "b"), 0x1Fu);
  EXPECT_EQ(chip->regGetLastWritten("ctrl"), 0xF01u);
  EXPECT_THAT(watcher.told,
              ElementsAre("chip0-ctrl", "chip0-ctrl-b", "chip0-ctrl", "chip0-ctrl-a"));
  EXPECT_THAT(transport.ledger(), ElementsAre("write r0 3840", "write r0 3841"));
  EXPECT_EQ(chip->shadowFieldsStatus()->field({0, 8, 4}).value(), 0x1Fu);
}

TEST_F(FieldHandles, OutliveTheirFieldAndTheirChip) {
  EXPECT_EQ(failure([&] { chip->field("ctrl", "nobody"); }),
            "chip 'chip0' has no field 'nobody' in a register 'ctrl'");
  EXPECT_EQ(failure([&] { chip->field("nobody", "a"); }),
            "chip 'chip0' has no field 'a' in a register 'nobody'");
  EXPECT_FALSE(LogicalFieldHandle());
  const LogicalFieldHandle a = chip->field("ctrl", "a");
  const auto lost = [&](const std::string& why) {
    const std::string all = "field 'chip0-ctrl-a' cannot be accessed: " + why;
    EXPECT_FALSE(a);
    EXPECT_EQ(failure([&] { a.write(1); }), all);
    EXPECT_EQ(failure([&] { a.lastWritten(); }), all);
  };
  EXPECT_TRUE(a);
  chip->readyIs(false);
  lost("the chip is not ready");
  writeSm->hasNotificationActiveIs(false);  // a field that goes has no translation
  chip->logicalFieldDel(a.name());
  writeSm->hasNotificationActiveIs(true);
  chip->readyIs(true);
  lost("the chip has no such field any more");
  chip->readyIs(false);
  chip->populateLogicalField("ctrl", "a", 0, 8, 3);
  chip->readyIs(true);
  a.write(9);
  EXPECT_EQ(chip->regGetLastWritten("ctrl") & 0xFF, 9u);
  // Whoever hears of the write may let go of the chip.
  struct Dropping : LogicalChip::Notifiee {
    Dropping(const Orb::Ptr<LogicalChip>& c, std::function<void()> d)
        : Notifiee(c), drop(std::move(d)) {
      hasNotificationActiveIs(true);
    }
    void onLogicalField(const LogicalFieldName&) override { drop(); }
    std::function<void()> drop;
  };
  auto dropping = std::make_unique<Dropping>(chip, [&] {
    chip = nullptr;
    writeSm = nullptr;
    shadowSm = nullptr;
  });
  a.write(10);
  dropping.reset();
  lost("the chip is gone");
}

}  // namespace
