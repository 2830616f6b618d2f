#pragma once

// The untyped half of notification: the list of notifiees of an entity, and one delivery over it.
// Entities and reactors use the typed half in Orb/Notifier.h; the promises made to both stand in
// docs/Notification.md. Everything here runs on the framework's thread.
//
// Invariants:
//  1. A notifiee is linked in a list exactly while its notification is active.
//  2. Sequence numbers grow along a list; a delivery reaches those below the number it started
//  with.
//  3. Every delivery in progress is known to its list, so that unlinking a notifiee moves the
//     delivery past it.

#include <cstdint>
#include <exception>

#include "Orb/Export.h"
#include "Orb/Ptr.h"

namespace Orb {

class NotifieeList;

// Something that is told of changes. Not reference-counted: whoever owns it destroys it, also from
// inside one of its own reactions.
class ORB_EXPORT NotifieeBase {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;

  bool hasNotificationActive() const { return active_; }

 protected:
  NotifieeBase() = default;
  virtual ~NotifieeBase();

  void activeIn(NotifieeList* list);
  void inactive();

 private:
  friend class NotifieeList;
  friend class Delivery;
  NotifieeList* list_ = nullptr;
  NotifieeBase* previous_ = nullptr;
  NotifieeBase* next_ = nullptr;
  uint64_t sequence_ = 0;
  bool active_ = false;
};

class Delivery;

// The active notifiees of one entity, in the order in which they became active.
class ORB_EXPORT NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;
  // Unlinks the notifiees that are left (those that the entity itself owns).
  ~NotifieeList();

  bool empty() const { return first_ == nullptr; }

 private:
  friend class NotifieeBase;
  friend class Delivery;
  void link(NotifieeBase& notifiee);
  void unlink(NotifieeBase& notifiee);

  NotifieeBase* first_ = nullptr;
  NotifieeBase* last_ = nullptr;
  uint64_t nextSequence_ = 0;
  Delivery* deliveries_ = nullptr;
};

// One walk over the notifiees of an entity. Lives on the stack and keeps the entity alive.
class ORB_EXPORT Delivery {
 public:
  Delivery(NotifieeList& list, const PtrInterface& entity);
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  ~Delivery();

  // The next notifiee to be told, or null at the end.
  NotifieeBase* next();
  // Keeps the exception in flight, if it is the first of this delivery.
  void failed() noexcept;
  // Ends the delivery, lets go of the entity and throws the exception that was kept, if any.
  void finish();

 private:
  void end() noexcept;

  friend class NotifieeList;
  NotifieeList* list_;
  NotifieeBase* next_;
  uint64_t limit_;
  Delivery* outer_;
  Ptr<const PtrInterface> keepsEntity_;
  std::exception_ptr failure_;
};

}  // namespace Orb
