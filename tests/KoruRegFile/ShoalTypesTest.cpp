// The shadow field tables and the manager that mounts them.

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "KoruRegFile/ShoalTypes.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"

namespace {

using namespace KoruRegFile;
using OrbPool::mountReader;
using OrbPool::mountWriter;
using Testing::counted;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* configType = "KoruRegFile::ShadowFieldsConfig";
constexpr const char* statusType = "KoruRegFile::ShadowFieldsStatus";

struct Watcher : ShadowFieldsConfig::Notifiee {
  explicit Watcher(const Orb::Ptr<ShadowFieldsConfig>& table) : Notifiee(table) {
    hasNotificationActiveIs(true);
  }
  void onField(const ShadowFieldKey& key) override {
    told.push_back(notifier()->field(key).value());
    if (reaction) reaction();
  }
  std::vector<uint32_t> told;
  std::function<void()> reaction;
};

class Tables : public testing::Test {
 protected:
  Orb::Ptr<ShadowFieldsConfig> mount(const Orb::Ptr<OrbPool::EntityManager>& from,
                                     OrbPool::MountType type, uint32_t entries = 10) {
    const auto group = from->mountGroup();
    group->collectionDescriptionIs({"field", entries, false});
    group->mount(configType, "config/chip0", type);
    const auto table = Orb::dynamic_pointer_cast<ShadowFieldsConfig>(from->entity("config/chip0"));
    group->close();
    return table;
  }

  const Testing::StateDirectory state;
  const Orb::Ptr<OrbPool::EntityManager> manager = OrbPool::entityManagerFactory();
  const ShadowFieldKey a{1, 0, 8}, b{1, 8, 8}, c{0xFFFFFFFF, 31, 32};
};

TEST_F(Tables, StoreNotifyAndCount) {
  const auto table = mount(manager, mountWriter);
  Watcher watcher(table);
  table->fieldIs({a, 5});
  table->fieldIs({a, 5});
  const ShadowFieldValue prepared(c, 0xFFFFFFFF);
  table->fieldCommit(&prepared);
  table->fieldDel(a);
  table->fieldDel(b);
  table->fieldNotify(c);
  EXPECT_THAT(watcher.told, ElementsAre(5, 5, 0xFFFFFFFF, 0, 0, 0xFFFFFFFF));
  EXPECT_THAT(table->fields(), ElementsAre(prepared));
  EXPECT_EQ(table->field(a), ShadowFieldValue());
  EXPECT_FALSE(table->fieldHas(a));
  EXPECT_EQ(counted("config/chip0", "fieldIs"), 3u);
  EXPECT_EQ(counted("config/chip0", "fieldDel"), 2u);
  EXPECT_EQ(counted("config/chip0", "fieldNotify"), 6u);
}

TEST_F(Tables, DeleteAllGoesOnBehindAReactorThatThrows) {
  const auto table = mount(manager, mountWriter);
  for (const auto& key : {a, b, c}) table->fieldIs({key, 7});
  Watcher watcher(table);
  watcher.reaction = [&] { throw std::runtime_error(std::to_string(watcher.told.size())); };
  EXPECT_EQ(Testing::failure([&] { table->fieldDelAll(); }), "1");
  EXPECT_EQ(watcher.told.size(), 3u);
  EXPECT_THAT(table->fields(), IsEmpty());
}

// Other programs may write any key: it is told, and hides nothing else.
TEST_F(Tables, AnEntryThatIsNoShadowFieldIsToldAndSkipped) {
  {
    Shoal::ShoalMap foreign({});
    foreign.mountAsWriter("config/chip0", configType, 10);
    foreign.put(uint64_t{1} << 48, 1);
    foreign.put(0x000100ff, 2);  // no field has 255 bits
  }
  const auto table = mount(manager, mountWriter);
  table->fieldIs({a, 7});
  std::vector<std::string> told;
  const auto previous =
      Shoal::ShoalMapBase::corruptionHandlerIs([&](const std::string& m) { told.push_back(m); });
  EXPECT_THAT(table->fields(), ElementsAre(ShadowFieldValue(a, 7)));
  Shoal::ShoalMapBase::corruptionHandlerIs(previous);
  EXPECT_THAT(told, testing::UnorderedElementsAre("0x1000000000000 is no key of a shadow field",
                                                  "0x100ff is no key of a shadow field"));
}

TEST_F(Tables, MountedTwiceAreTheSameAndGrow) {
  const auto table = mount(manager, mountWriter, 0);
  table->fieldIs({a, 5});
  EXPECT_EQ(mount(manager, mountWriter, 5000), table);
  EXPECT_EQ(table->field(a).value(), 5u);
  EXPECT_THROW(mount(manager, mountReader), std::runtime_error);
  EXPECT_THROW(manager->mountGroup()->mount(statusType, "config/chip0", mountWriter),
               std::runtime_error);
  EXPECT_THROW(manager->mountGroup()->mount("Home::Lamp", "x", mountWriter), std::invalid_argument);
}

TEST_F(Tables, AFailedGroupIsUndone) {
  const auto other = OrbPool::entityManagerFactory();
  const auto holder = other->mountGroup();
  holder->mount(statusType, "status/chip0", mountWriter);
  const auto group = manager->mountGroup();
  group->mount(configType, "config/chip0", mountWriter);
  EXPECT_THROW(group->mount(statusType, "status/chip0", mountWriter), std::runtime_error);
  EXPECT_EQ(manager->entity("config/chip0"), nullptr);
  EXPECT_NE(mount(other, mountWriter), nullptr);
}

TEST_F(Tables, AreHandedToTheirControlOnceAndKeptWhileItNeedsThem) {
  auto table = mount(manager, mountWriter);
  const auto control = table->fieldControl();
  control->pendingIs(true);
  table.reset();
  const auto kept = manager->entity("config/chip0");
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->referenceCount(), 2u);
  control->pendingIs(false);
  EXPECT_EQ(kept->referenceCount(), 1u);
  control->pendingIs(true);
}

TEST_F(Tables, DamageEndsALookUpQuietlyAndAChangeForGood) {
  std::vector<std::string> messages;
  Shoal::ShoalMapBase::corruptionHandlerIs(
      [&](const std::string& message) { messages.push_back(message); });
  const auto table = mount(manager, mountWriter);
  table->fieldIs({a, 5});
  ASSERT_EQ(::truncate(state.file("config/chip0").c_str(), 4096), 0);
  EXPECT_EQ(table->field(a), ShadowFieldValue());
  EXPECT_THAT(table->fields(), IsEmpty());
  EXPECT_EQ(messages.size(), 2u);
  EXPECT_DEATH(table->fieldIs({a, 6}), "in no man's land");
  EXPECT_DEATH(table->fieldDel(a), "in no man's land");
  Shoal::ShoalMapBase::corruptionHandlerIs({});
}

}  // namespace
