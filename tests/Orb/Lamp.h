#pragma once

// A small entity that the framework's tests observe, describe and call by name.

#include <functional>

#include "Orb/EntityType.h"
#include "Orb/Notifier.h"
#include "Orb/Value.h"

namespace Home {

enum class Colour : uint8_t { red = 0, warmWhite = 3 };

}  // namespace Home

template <>
struct Orb::EnumDescription<Home::Colour> {
  static constexpr const char* typeName = "Home::Colour";
  static constexpr EnumName<Home::Colour> names[] = {{Home::Colour::red, "red"},
                                                     {Home::Colour::warmWhite, "warm-white"}};
};

namespace Home {

class Place : public Orb::OrderedValue<Place> {
 public:
  Place() = default;
  Place(Orb::String room, uint8_t shelf) : room_(std::move(room)), shelf_(shelf) {
    if (shelf > 9) Orb::throwRangeException("Home::Place::shelf > 9 not allowed");
  }
  static constexpr auto description() {
    return Orb::describe("Home::Place", Orb::named("room", &Place::room_),
                         Orb::named("shelf", &Place::shelf_));
  }
  const Orb::String& room() const { return room_; }
  size_t hash() const { return Orb::hashMix(Orb::hashMix(0, room_), shelf_); }

 private:
  Orb::String room_;
  uint8_t shelf_ = 0;
};

// Without a hash and without a parser.
class Ghost : public Orb::Value<Ghost> {
 public:
  static constexpr bool parses = false;
  static Ghost fromStrep(Orb::StrepReader& in) { in.fail("no ghost"); }
  static constexpr auto description() {
    return Orb::describe("Home::Ghost", Orb::named("age", &Ghost::age_));
  }

 private:
  uint32_t age_ = 0;
};

class Lamp : public Orb::Notifier<Lamp> {
 public:
  class Notifiee : public Orb::NotifieeOf<Lamp> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onLit() {}
    virtual void onBulb(const Orb::String& /*name*/) {}
  };
  using Bulbs = Orb::Collection<Orb::String, uint32_t>;

  // Does what the test wants done when it goes.
  explicit Lamp(
      Orb::String name, std::function<void()> atEnd = [] {})
      : name_(std::move(name)), atEnd_(std::move(atEnd)) {}
  ~Lamp() override { atEnd_(); }
  static const Orb::EntityType& entityType() {
    static const auto type = Orb::EntityTypeOf<Lamp>("Home::Lamp")
                                 .attribute("name", &Lamp::name)
                                 .attribute("lit", &Lamp::lit)
                                 .attribute("bulb", &Lamp::bulb)
                                 .operation("litIs", &Lamp::litIs, {"lit"})
                                 .operation("bulbIs", &Lamp::bulbIs, {"name", "watts"})
                                 .operation("dim", &Lamp::dim, {"level", "colour"})
                                 .operation("place", &Lamp::place, {"place"})
                                 .operation("haunt", &Lamp::haunt, {"ghost"})
                                 .operation("twin", &Lamp::twin, {"lamp"});
    return type;
  }
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  bool lit() const { return lit_(); }
  void litIs(bool lit) { attributeIs(lit_, lit, &Notifiee::onLit); }
  const Bulbs& bulb() const { return bulb_; }
  void bulbIs(const Orb::String& name, uint32_t watts) {
    collectionIs(bulb_, name, watts, &Notifiee::onBulb);
  }
  void bulbDel(const Orb::String& name) { collectionDel(bulb_, name, &Notifiee::onBulb); }
  void bulbDelAll() { collectionDelAll(bulb_, &Notifiee::onBulb); }
  uint32_t dim(uint8_t level, Colour colour) { return level * 2u + static_cast<uint32_t>(colour); }
  Orb::String place(const Place& place) { return place.room(); }
  void haunt(const Ghost&) {}
  Orb::Ptr<Lamp> twin(const Orb::Ptr<Lamp>& lamp) { return lamp; }

 private:
  const Orb::String name_;
  const std::function<void()> atEnd_;
  Orb::Attribute<bool> lit_;
  Bulbs bulb_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

}  // namespace Home
