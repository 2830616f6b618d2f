// Chips that come and go in the system status, and what is made and taken down for them.

#include <gmock/gmock.h>

#include <functional>

#include "KoruRegFile/SystemChipStatusSm.h"
#include "Orb/EntityType.h"
#include "testing/Expect.h"
#include "testing/FieldChip.h"
#include "testing/RecordingTraceSink.h"
#include "testing/StateDirectory.h"

namespace {

using namespace KoruRegFile;
using testing::ElementsAre;
using Testing::failure;
using testing::IsEmpty;

using Log = std::vector<std::string>;

// An agent whose chips all have the same three fields.
class Agent : public SystemChipStatusSmBase {
 public:
  Agent(const Orb::Ptr<const PossibleSystemStatus>& status, const Orb::Ptr<LogicalModel>& logical,
        const Orb::Ptr<PhysicalModel>& physical)
      : SystemChipStatusSmBase(OrbPool::entityManagerFactory(), status, logical, physical) {}

  Orb::Ptr<LogicalChip> createLogicalChip(const Orb::String& name) override {
    log.push_back("make chip");
    reach("make chip");
    const auto chip = logicalChipFactory(as.empty() ? name : as);
    Testing::describe(*chip, Testing::threeFields, 1);
    const std::string paths =
        MountConstants::shadowFieldsConfigPathPrefix + ("/" + std::string(name));
    chip->mountShadowFields(shmemEntityManager(), paths, "status/" + std::string(name));
    if (unmountsStatus) chip->shadowFieldsStatusIs(nullptr);
    if (puts) logicalModel()->chipIs(chip);
    fields = std::make_unique<FieldWatcher>(chip->shadowFieldsConfig(), *this);
    return chip;
  }
  Orb::Ptr<TransportMethod> createTransport(const Orb::String& name) override {
    log.push_back("make transport");
    reach("make transport");
    if (fails) throw std::runtime_error("no bus");
    if (makesNone) return nullptr;
    transports.push_back(std::make_unique<Testing::LedgerTransport>(name, registers));
    return transports.back()->method;
  }

  struct FieldWatcher : ShadowFieldsConfig::Notifiee {
    FieldWatcher(const Orb::Ptr<ShadowFieldsConfig>& table, Agent& a) : Notifiee(table), agent(a) {
      hasNotificationActiveIs(true);
    }
    void onField(const ShadowFieldKey&) override { agent.reach("first field"); }
    Agent& agent;
  };

  // Runs what a test has planned for that point, once.
  void reach(const char* point) {
    if (point != plannedFor) return;
    plannedFor.clear();
    plan();
  }

  Log log;
  std::string plannedFor;
  std::function<void()> plan;
  std::vector<std::unique_ptr<Testing::LedgerTransport>> transports;
  std::unique_ptr<FieldWatcher> fields;  // of the latest chip
  Orb::String as;
  size_t registers = 2;
  bool unmountsStatus = false, fails = false, makesNone = false, puts = false;
};

// Logs what comes and goes in the models, and is itself a point at which a test may act.
struct Watcher : LogicalModel::Notifiee, PhysicalModel::Notifiee {
  explicit Watcher(Agent& a)
      : LogicalModel::Notifiee(a.logicalModel()),
        PhysicalModel::Notifiee(a.physicalModel()),
        agent(a) {
    LogicalModel::Notifiee::hasNotificationActiveIs(true);
    PhysicalModel::Notifiee::hasNotificationActiveIs(true);
  }
  void onChip(const Orb::String& name) override { told("chip", logical().chip(name) != nullptr); }
  void onWriteSm(const Orb::String& name) override {
    // Going, a chip is no longer ready.
    const bool present = logical().writeSm(name) != nullptr;
    EXPECT_EQ(logical().chip(name)->ready(), present);
    told("writeSm", present);
  }
  void onTransport(const Orb::String& name) override {
    const bool present = physical().transport(name) != nullptr;
    told("transport", present);
    if (!present || !physical().transport(name)) return;
    agent.transports.back()->memory->faultIs("r0", [this] { agent.reach("first write"); });
  }
  void onShadowSm(const Orb::String& name) override {
    told("shadowSm", physical().shadowSm(name) != nullptr);
  }

 private:
  const LogicalModel& logical() const { return *LogicalModel::Notifiee::notifier(); }
  const PhysicalModel& physical() const { return *PhysicalModel::Notifiee::notifier(); }
  void told(const char* what, bool present) {
    agent.log.push_back((present ? "+" : "-") + std::string(what));
    agent.reach(what);
  }
  Agent& agent;
};

class SystemChipStatus : public testing::Test {
 protected:
  Log logged() { return std::exchange(agent->log, {}); }
  const std::vector<std::string>& ledger(size_t i) const {
    return agent->transports.at(i)->ledger();
  }

  const Testing::StateDirectory state;
  const Orb::Ptr<PossibleSystemStatus> status = possibleSystemStatusFactory("system");
  const Orb::Ptr<LogicalModel> logical = logicalModelFactory();
  const Orb::Ptr<PhysicalModel> physical = physicalModelFactory();
  const Orb::Ptr<Agent> agent = Orb::make<Agent>(status, logical, physical);
  const Watcher watcher{*agent};
};

const Log bringUp = {"make chip", "+chip", "+writeSm", "make transport", "+transport", "+shadowSm"};
const Log takeDown = {"-writeSm", "-chip", "-shadowSm", "-transport"};

TEST_F(SystemChipStatus, BringsUpAndTakesDownInOrder) {
  const Testing::RecordedTraces traces("SystemChipStatusSmBase", 1);
  const auto entry = status->chipStatusIs("chip0");
  EXPECT_EQ(logged(), bringUp);
  EXPECT_THAT(ledger(0), ElementsAre("write r0 257", "write r1 1"));
  entry->devIdIs({1, 2, 3});
  entry->profileNameIs("small");
  status->profileIs({"small", {1, 2}});
  status->profileDelAll();
  EXPECT_THAT(logged(), IsEmpty());
  status->chipStatusDel("chip0");
  EXPECT_EQ(logged(), takeDown);
  EXPECT_THAT(traces.texts(),
              ElementsAre("ChipStatusSmBase::handleSystemChipStatuschipName:chip0, add",
                          "ChipStatusSmBase::handleSystemChipStatuschipName:chip0, del"));
}

TEST_F(SystemChipStatus, ReplacesTheShadowReactorOnly) {
  status->chipStatusIs("chip0");
  const auto old = physical->shadowSm("chip0");
  const auto chip = logical->chip("chip0");
  logged();
  status->chipStatusIs("chip0");
  EXPECT_THAT(logged(), ElementsAre("+shadowSm"));
  EXPECT_NE(physical->shadowSm("chip0"), old);
  chip->fieldWrite("ctrl", "c", 7);
  EXPECT_EQ(ledger(0).size(), 3u) << "the old reactor writes, too";
  EXPECT_EQ(old->regConfig()(1u), 1u);
  // So do those that went with their chip, while somebody holds them.
  const auto last = physical->shadowSm("chip0");
  const auto writeSm = logical->writeSm("chip0");
  status->chipStatusDel("chip0");
  LogicalField changed = chip->logicalField().begin()->second;
  changed.valueIs(99);
  chip->logicalFieldIs(changed);
  EXPECT_EQ(chip->shadowFieldsConfig()->field({0, 0, 8}).value(), 1u);
  chip->shadowFieldsConfig()->fieldIs({{1, 0, 16}, 9});
  EXPECT_EQ(ledger(0).size(), 3u);
}

// The chip goes, or goes and comes back, in a hook, in an observer of the models, or while its
// registers are written first.
TEST_F(SystemChipStatus, MayLoseAChipAtAnyPointOfItsBringUp) {
  for (const bool comesBack : {false, true}) {
    for (const char* point : {"make chip", "chip", "first field", "writeSm", "make transport",
                              "transport", "first write"}) {
      SCOPED_TRACE(point);
      // Nothing is known of it from before.
      const Orb::String chip = fmt::format("{}{}", point, comesBack);
      agent->plannedFor = point;
      agent->plan = [&] {
        status->chipStatusDel(chip);
        if (comesBack) status->chipStatusIs(chip);
      };
      status->chipStatusIs(chip);
      EXPECT_EQ(agent->plannedFor, "");
      const size_t expected = comesBack ? 1 : 0;
      EXPECT_EQ(logical->chip().size(), expected);
      EXPECT_EQ(logical->writeSm().size(), expected);
      EXPECT_EQ(physical->transport().size(), expected);
      EXPECT_EQ(physical->shadowSm().size(), expected);
      if (comesBack) {
        EXPECT_TRUE(logical->chip(chip)->ready());
        EXPECT_EQ(logical->writeSm(chip)->logicalChip(), logical->chip(chip));
        EXPECT_EQ(physical->shadowSm(chip)->transport(), physical->transport(chip));
      }
      status->chipStatusDel(chip);
      agent->transports.clear();
    }
  }
}

TEST_F(SystemChipStatus, TakesAChipThatTheHookHasPutIntoTheModel) {
  agent->puts = true;
  status->chipStatusIs("chip0");
  EXPECT_TRUE(logical->chip("chip0")->ready());
  EXPECT_NE(logical->writeSm("chip0"), nullptr);
}

TEST_F(SystemChipStatus, PicksUpChipsThatWereThereBefore) {
  agent->hasNotificationActiveIs(false);
  status->chipStatusIs("a");
  status->chipStatusIs("b");
  const auto foreign = logicalChipFactory("foreign");
  logical->chipIs(foreign);
  EXPECT_EQ(logical->chip().size(), 1u);
  Orb::callOperation(*agent, "handleSystemChipStatus", {});
  EXPECT_EQ(physical->shadowSm().size(), 2u);
  EXPECT_EQ(logical->chip("foreign"), foreign);
  EXPECT_FALSE(foreign->ready());
}

TEST_F(SystemChipStatus, KeepsWhatWasMadeBeforeAFailure) {
  agent->fails = true;
  EXPECT_EQ(failure([&] { status->chipStatusIs("chip0"); }), "no bus");
  EXPECT_THAT(logged(), ElementsAre("make chip", "+chip", "+writeSm", "make transport"));
  agent->fails = false;
  agent->registers = 1;
  EXPECT_EQ(failure([&] { agent->handleSystemChipStatus("chip0"); }),
            "RegisterFile does not have address: 1!");
  EXPECT_THAT(logged(), ElementsAre("make transport", "+transport"));
  agent->transports[0]->registersAre(2);
  agent->handleSystemChipStatus("chip0");
  EXPECT_THAT(logged(), ElementsAre("+shadowSm"));
}

TEST_F(SystemChipStatus, RefusesWhatIsNotTheChips) {
  agent->makesNone = true;
  EXPECT_EQ(failure([&] { status->chipStatusIs("a"); }), "chip a: no transport was made");
  agent->as = "x";
  EXPECT_EQ(failure([&] { status->chipStatusIs("b"); }),
            "chip b: the logical chip made for it is called x");
  EXPECT_THROW(logical->chipIs(nullptr), std::invalid_argument);
  EXPECT_THROW(Orb::make<Agent>(status, logical, nullptr), std::invalid_argument);
}

TEST_F(SystemChipStatus, SimulatesIfTheModelSaysSo) {
  physical->simulateIs(true);
  status->chipStatusIs("chip0");
  EXPECT_TRUE(physical->shadowSm("chip0")->simulate());
  EXPECT_THAT(ledger(0), IsEmpty());
}

// Fields whose keys nobody has set are written to registers 0, 1, 2, ..., whatever they are called.
TEST_F(SystemChipStatus, TellsOfFieldsThatLieInOtherRegistersThanTheirOwn) {
  struct Careless : Agent {
    using Agent::Agent;
    Orb::Ptr<LogicalChip> createLogicalChip(const Orb::String& name) override {
      const auto chip = logicalChipFactory(name);
      for (const auto& [reg, field] :
           std::vector<std::pair<const char*, const char*>>{{"r0", "a"},
                                                            {"r1", "b"},
                                                            {"r1", "c"},
                                                            {"nobody", "d"},
                                                            {"r0", "e"},
                                                            {"r0", "f"},
                                                            {"r0", "g"},
                                                            {"r0", "h"},
                                                            {"r0", "i"}}) {
        chip->populateLogicalField(reg, field, 0, 1, 0);
        chip->populatePhysicalField(reg, field, 0, 1);
        chip->translation()->populate(reg, field, reg, field);
      }
      chip->mountShadowFields(shmemEntityManager(), "config", "status");
      return chip;
    }
  };
  const Testing::RecordedTraces traces("fieldKeys", 0);
  const auto others = possibleSystemStatusFactory("others");
  const auto careless = Orb::make<Careless>(others, logicalModelFactory(), physicalModelFactory());
  careless->registers = 12;
  others->chipStatusIs("chip0");
  const std::string told =
      "chip chip0: field r1.c is written to the register at 0x2, as its key "
      "says, and not to r1, which is at 0x1";
  ASSERT_EQ(traces.texts().size(), 6u);
  EXPECT_EQ(traces.texts().front(), told);
  EXPECT_EQ(traces.texts().back(), "chip chip0: so are 1 more");
}

TEST_F(SystemChipStatus, StopsAtChipsWithoutTables) {
  const auto unwatched = Orb::make<Agent>(nullptr, logical, physical);
  unwatched->handleSystemChipStatus();
  EXPECT_DEATH(unwatched->handleSystemChipStatus("a"), "systemStatus\\(\\)");
  agent->unmountsStatus = true;
  EXPECT_DEATH(status->chipStatusIs("a"), "lChip->shadowFieldsStatus\\(\\)");
  logical->chipIs(logicalChipFactory("a"));
  EXPECT_DEATH(status->chipStatusIs("a"), "lChip->shadowFieldsConfig\\(\\)");
}

}  // namespace
