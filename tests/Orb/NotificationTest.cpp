// The promises of docs/Notification.md, one by one.

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/Orb/Lamp.h"

namespace {

using Home::Lamp;
using testing::ElementsAre;
using testing::IsEmpty;

using Log = std::vector<std::string>;

// Writes what it is told into a log, then does what the test wants done.
class Watcher : public Lamp::Notifiee {
 public:
  Watcher(const Orb::Ptr<Lamp>& lamp, std::string name, Log& log, std::function<void()> reaction)
      : Notifiee(lamp), name_(std::move(name)), log_(log), reaction_(std::move(reaction)) {
    hasNotificationActiveIs(true);
  }
  void onLit() override { told(notifier()->lit() ? "lit" : "dark"); }
  void onBulb(const Orb::String& bulb) override {
    told(std::string(bulb) + (notifier()->bulb().has(bulb) ? "" : " gone"));
  }
  void reactionIs(std::function<void()> reaction) { reaction_ = std::move(reaction); }

 private:
  void told(const std::string& what) {
    log_.push_back(name_ + ": " + what);
    // The reaction may destroy this watcher, and with it the function itself.
    const auto reaction = reaction_;
    if (reaction) reaction();
  }

  const std::string name_;
  Log& log_;
  std::function<void()> reaction_;
};

class Notification : public testing::Test {
 protected:
  std::unique_ptr<Watcher> watch(const std::string& name, std::function<void()> reaction = {}) {
    return std::make_unique<Watcher>(lamp, name, log, std::move(reaction));
  }

  Log log;
  bool deleted = false;
  Orb::Ptr<Lamp> lamp = Orb::make<Lamp>("lamp", [this] { deleted = true; });
};

TEST_F(Notification, ComesAfterTheChangeInTheOrderOfActivationAndOnlyForChanges) {
  const auto a = watch("a");
  const auto b = watch("b");
  lamp->litIs(true);
  lamp->litIs(true);
  a->hasNotificationActiveIs(false);
  lamp->litIs(false);
  a->hasNotificationActiveIs(true);
  a->hasNotificationActiveIs(true);
  lamp->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit", "b: lit", "b: dark", "b: lit", "a: lit"));
}

TEST_F(Notification, TellsEveryInsertOverwriteAndDelete) {
  const auto a = watch("a");
  lamp->bulbIs("x", 40);
  lamp->bulbIs("x", 40);
  lamp->bulbIs("y", 60);
  lamp->bulbDel("nobody");
  lamp->bulbDel("x");
  lamp->bulbIs("z", 1);
  lamp->bulbDelAll();
  EXPECT_THAT(log,
              ElementsAre("a: x", "a: x", "a: y", "a: x gone", "a: z", "a: y gone", "a: z gone"));
}

TEST_F(Notification, ADeletedKeyOutlivesItsEntryInEveryReaction) {
  const auto a = watch("a");
  const auto b = watch("b");
  lamp->bulbIs("a long name that lives on the heap", 40);
  log.clear();
  lamp->bulbDel(lamp->bulb().begin()->first);
  EXPECT_THAT(log, ElementsAre("a: a long name that lives on the heap gone",
                               "b: a long name that lives on the heap gone"));
}

TEST_F(Notification, ANotifieeAddedDuringADeliveryWaitsForTheNextChange) {
  std::unique_ptr<Watcher> late;
  const auto a = watch("a", [&] {
    if (!late) late = watch("late");
  });
  lamp->litIs(true);
  lamp->litIs(false);
  EXPECT_THAT(log, ElementsAre("a: lit", "a: dark", "late: dark"));
}

TEST_F(Notification, ANotifieeAddedByTheLastOneStillWaitsWhenTheLastOneGoes) {
  std::unique_ptr<Watcher> late;
  auto a = watch("a");
  a->reactionIs([&] {
    a.reset();
    late = watch("late");
  });
  lamp->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit"));
}

TEST_F(Notification, ANotifieeRemovedDuringADeliveryIsNotCalledAnyMoreEvenByItself) {
  auto a = watch("a"), b = watch("b"), c = watch("c"), d = watch("d");
  a->reactionIs([&] {
    a.reset();
    b.reset();
    c->hasNotificationActiveIs(false);
  });
  lamp->litIs(true);
  lamp->litIs(false);
  EXPECT_THAT(log, ElementsAre("a: lit", "d: lit", "d: dark"));
}

TEST_F(Notification, NestedChangesAreDeliveredNestedAndWhoIsRemovedIsSkippedByBoth) {
  std::unique_ptr<Watcher> b;
  int depth = 0;
  const auto a = watch("a", [&] {
    if (++depth == 1) lamp->litIs(false);
    if (depth == 2) b.reset();
  });
  b = watch("b");
  const auto c = watch("c");
  lamp->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit", "a: dark", "c: dark", "c: dark"));
}

TEST_F(Notification, TheEntitySurvivesItsOwnDelivery) {
  auto a = watch("a");
  auto b = watch("b");
  a->reactionIs([&] {
    lamp.reset();
    a.reset();
  });
  b->reactionIs([&] {
    b.reset();
    EXPECT_FALSE(deleted);
  });
  lamp->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit", "b: lit"));
  EXPECT_TRUE(deleted);
}

TEST_F(Notification, WhenAReactorThrowsTheOthersAreToldAndTheFirstExceptionArrives) {
  const auto a = watch("a", [] { throw std::runtime_error("first"); });
  const auto b = watch("b", [] { throw std::logic_error("second"); });
  const auto c = watch("c");
  EXPECT_THAT([&] { lamp->litIs(true); }, testing::ThrowsMessage<std::runtime_error>("first"));
  EXPECT_THAT(log, ElementsAre("a: lit", "b: lit", "c: lit"));
  EXPECT_TRUE(lamp->lit());
}

TEST_F(Notification, DeletingAllGoesOnBehindAThrowingReactor) {
  lamp->bulbIs("x", 1);
  lamp->bulbIs("y", 2);
  const auto a = watch("a", [] { throw std::runtime_error("no"); });
  EXPECT_THROW(lamp->bulbDelAll(), std::runtime_error);
  EXPECT_THAT(log, ElementsAre("a: x gone", "a: y gone"));
}

TEST_F(Notification, ANotifieeKeepsItsNotifierAlive) {
  auto a = watch("a");
  Lamp* plain = lamp.get();
  lamp.reset();
  EXPECT_FALSE(deleted);
  plain->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit"));
  a.reset();
  EXPECT_TRUE(deleted);
}

TEST_F(Notification, ANotifieeCanTurnToAnotherEntityAndToNone) {
  const auto other = Orb::make<Lamp>("other");
  const auto a = watch("a");
  a->notifierIs(other);
  lamp->litIs(true);
  EXPECT_THAT(log, IsEmpty());
  other->litIs(true);
  EXPECT_THAT(log, ElementsAre("a: lit"));
  a->notifierIs(nullptr);
  EXPECT_EQ(other->referenceCount(), 1u);
}

// What an entity, or whoever keeps it on the stack, watches it with.
struct Own : Lamp::Notifiee {
  Own(Lamp& lamp, Log& l) : Notifiee(lamp, Orb::OwnedByNotifier()), log(l) {
    hasNotificationActiveIs(true);
  }
  void onLit() override { log.push_back("own"); }
  Log& log;
};

// A lamp that watches itself, and that may stay when its last reference goes.
struct SelfMadeLamp : Lamp {
  SelfMadeLamp(bool& gone, Log& l) : Lamp("self", [&gone] { gone = true; }), log(l) {
    zero.hasNotificationActiveIs(true);
  }
  struct Zero : Orb::ZeroReferencesNotifiee {
    explicit Zero(SelfMadeLamp& l) : ZeroReferencesNotifiee(l), lamp(l) {}
    void onZeroReferences() override {
      lamp.log.push_back("zero");
      // References that come and go inside the hook do not set it off again.
      Orb::Ptr<Lamp>(&lamp).reset();
      if (lamp.saves) lamp.saved = &lamp;
    }
    SelfMadeLamp& lamp;
  };

  Log& log;
  Own own{*this, log};
  Zero zero{*this};
  Orb::Ptr<Lamp> saved;
  bool saves = true;
};

TEST_F(Notification, WhatAnEntityOwnsDoesNotKeepItAliveButItsZeroReferencesHookMay) {
  bool gone = false;
  auto self = Orb::make<SelfMadeLamp>(gone, log);
  SelfMadeLamp& plain = *self;
  self.reset();
  EXPECT_FALSE(gone);
  EXPECT_EQ(plain.referenceCount(), 1u);
  plain.saves = false;
  plain.litIs(true);
  std::exchange(plain.saved, nullptr).reset();
  EXPECT_TRUE(gone);
  EXPECT_THAT(log, ElementsAre("zero", "own", "zero"));
}

class Socket : public Orb::Notifier<Socket> {
 public:
  struct Notifiee : Orb::NotifieeOf<Socket> {
    using NotifieeOf::NotifieeOf;
    virtual void onLamp() {}
    virtual void onSpare(const Orb::String& /*name*/) {}
  };
  const Orb::EntityType& fwkType() const override { return Lamp::entityType(); }
  void lampIs(const Orb::Ptr<Lamp>& lamp) { attributeIs(lamp_, lamp, &Notifiee::onLamp); }
  void spareIs(const Orb::Ptr<Lamp>& lamp) {
    collectionIs(spare_, "spare", lamp, &Notifiee::onSpare);
  }

 private:
  Orb::Attribute<Orb::Ptr<Lamp>> lamp_;
  Orb::Collection<Orb::String, Orb::Ptr<Lamp>> spare_;
};

TEST(Notifier, AnEntitySurvivesAnOldValueThatTakesItAlong) {
  for (const auto set : {&Socket::lampIs, &Socket::spareIs}) {
    auto socket = Orb::make<Socket>();
    Socket& plain = *socket;
    (plain.*set)(Orb::make<Lamp>("old", [&] { socket.reset(); }));
    (plain.*set)(nullptr);
    EXPECT_EQ(socket, nullptr);
  }
}

TEST(Notifier, AnEntityOnTheStackIsNotDeletedByItsDelivery) {
  Log log;
  Lamp lamp("stack");
  const Own own(lamp, log);
  lamp.litIs(true);
  EXPECT_THAT(log, ElementsAre("own"));
}

}  // namespace
