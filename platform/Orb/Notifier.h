#pragma once

// Entities with attributes, whose changes are told to notifiees; the promises made to both sides
// stand in docs/Notification.md.
//
//     class Lamp : public Orb::Notifier<Lamp> {
//      public:
//       class Notifiee : public Orb::NotifieeOf<Lamp> {
//        public:
//         using NotifieeOf::NotifieeOf;
//         virtual void onLit() {}
//       };
//       bool lit() const { return lit_(); }
//       void litIs(bool lit) { attributeIs(lit_, lit, &Notifiee::onLit); }
//       ...
//      private:
//       Orb::Attribute<bool> lit_;
//     };
//
// A setter returns when the value is equal, stores it, and tells the notifiees, in this order; that
// must be the last thing it does, since a reaction may drop the last reference to the entity.
// Entities and notifiees are used on the framework's thread only.

#include <exception>
#include <type_traits>
#include <utility>
#include <vector>

#include "Orb/Collection.h"
#include "Orb/Entity.h"
#include "Orb/FlatCollection.h"
#include "Orb/Notifiee.h"

namespace Orb {

// A single-valued attribute. Only Notifier changes it, so that no change goes untold.
template <class T>
class Attribute {
 public:
  Attribute() = default;
  explicit Attribute(T initial) : value_(std::move(initial)) {}
  const T& operator()() const { return value_; }

 private:
  template <class E, class Base>
  friend class Notifier;
  T value_{};
};

template <class E>
class NotifieeOf;

// Base of an entity E with notifiees of the type E::Notifiee. An entity that adds attributes to
// another observable entity derives from Notifier<E, ThatEntity>.
template <class E, class Base = Entity>
class Notifier : public Base {
 public:
  bool hasNotifiees() const { return !notifiees_.empty(); }

 protected:
  using Base::Base;

  // Calls `reaction` of every notifiee. The arguments must not live in what a reaction may change.
  template <class N, class... P, class... A>
  void notify(void (N::*reaction)(P...), const A&... arguments) const {
    static_assert(std::is_same_v<N, typename E::Notifiee>);
    if (notifiees_.empty()) return;
    Delivery delivery(notifiees_, *this);
    while (NotifieeBase* notifiee = delivery.next()) {
      try {
        (static_cast<N*>(notifiee)->*reaction)(arguments...);
      } catch (...) {
        delivery.failed();
      }
    }
    delivery.finish();
  }

  template <class T, class N>
  void attributeIs(Attribute<T>& attribute, std::type_identity_t<T> value, void (N::*reaction)()) {
    if (attribute.value_ == value) return;
    // The old value outlives the telling, since its destruction may drop this entity.
    std::swap(attribute.value_, value);
    notify(reaction);
  }

  // These three take a Collection or a FlatCollection. The key is taken by value: a reference might
  // point into the entry that a reaction deletes.
  template <class C, class N, class P>
  void collectionIs(C& collection, typename C::Key key, typename C::Value value,
                    void (N::*reaction)(P)) {
    const auto keep = keepAlive(this);
    collection.is(key, std::move(value));
    notify(reaction, key);
  }
  template <class C, class N, class P>
  void collectionDel(C& collection, typename C::Key key, void (N::*reaction)(P)) {
    // The value outlives its entry, so that whatever its destruction sets off finds the entry gone.
    const typename C::Value* found = collection.find(key);
    if (!found) return;
    [[maybe_unused]] const typename C::Value value = *found;
    collection.del(key);
    notify(reaction, key);
  }
  // Deletes every entry that is there now, each told by itself. All go, even when reactions throw;
  // the first exception then reaches the caller.
  template <class C, class N, class P>
  void collectionDelAll(C& collection, void (N::*reaction)(P)) {
    const auto keep = keepAlive(this);
    std::vector<typename C::Key> keys;
    for (const auto& [key, value] : collection) keys.push_back(key);
    std::exception_ptr failure;
    for (const auto& key : keys) {
      try {
        collectionDel(collection, key, reaction);
      } catch (...) {
        if (!failure) failure = std::current_exception();
      }
    }
    if (failure) std::rethrow_exception(failure);
  }

 private:
  template <class>
  friend class NotifieeOf;
  mutable NotifieeList notifiees_;
};

// Says that a notifiee belongs to its notifier, which it therefore must not keep alive.
struct OwnedByNotifier {};

// Base of E::Notifiee. Keeps its notifier alive while it has one. Off until
// hasNotificationActiveIs(true), which puts it behind the others that are active. Notifiees that
// only look at their notifier derive from NotifieeOf<const E>.
template <class E>
class NotifieeOf : public NotifieeBase {
 public:
  explicit NotifieeOf(Ptr<E> notifier) : notifier_(notifier.get()), keepsNotifier_(notifier) {}
  NotifieeOf(E& owner, OwnedByNotifier) : notifier_(&owner) {}

  E* notifier() const { return notifier_; }
  // Turns to another entity, or to none; stays on or off.
  void notifierIs(Ptr<E> notifier) {
    const bool active = hasNotificationActive();
    inactive();
    notifier_ = notifier.get();
    const Ptr<E> previous = std::exchange(keepsNotifier_, std::move(notifier));
    if (active) activeIn(list());
  }

  void hasNotificationActiveIs(bool active) {
    if (active == hasNotificationActive()) return;
    if (active) {
      activeIn(list());
    } else {
      inactive();
    }
  }

 protected:
  ~NotifieeOf() override { inactive(); }

 private:
  NotifieeList* list() const { return notifier_ ? &listOf(*notifier_) : nullptr; }
  template <class Base>
  static NotifieeList& listOf(const Notifier<std::remove_const_t<E>, Base>& notifier) {
    return notifier.notifiees_;
  }

  E* notifier_;
  Ptr<E> keepsNotifier_;
};

}  // namespace Orb
