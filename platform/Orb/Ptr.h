#pragma once

// Reference-counted objects and the pointers that keep them alive.
//
// An object derives from Orb::PtrInterface and is held by Orb::Ptr. Its count starts at 0 and lives
// in the object, so a Ptr may be made from a plain pointer at any time - but not in the object's
// own constructor or destructor, nor of an object on the stack: the count is 0 there, and the Ptr
// would delete the object when it goes. Counts are plain integers until threadSafeModeIs(true);
// from then on they are changed atomically.

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>
#include <utility>

#include "Orb/Export.h"

namespace Orb {

template <class T>
using Ptr = boost::intrusive_ptr<T>;

using boost::const_pointer_cast;
using boost::dynamic_pointer_cast;
using boost::static_pointer_cast;

// Whether reference counts (of objects and of strings) are changed atomically. Initially false.
// Switch it on before a second thread touches counted objects; it may be switched off again only
// when one thread is left.
ORB_EXPORT void threadSafeModeIs(bool on);

namespace detail {
ORB_EXPORT extern std::atomic<bool> threadSafeMode;
}

inline bool threadSafeMode() { return detail::threadSafeMode.load(std::memory_order_relaxed); }

// A count that costs a plain add in single-threaded mode and an atomic one in thread-safe mode.
class ReferenceCount {
 public:
  void add() const {
    if (threadSafeMode()) {
      count_.fetch_add(1, std::memory_order_relaxed);
    } else {
      count_.store(value() + 1, std::memory_order_relaxed);
    }
  }
  // Returns the count that is left.
  uint32_t drop() const {
    if (threadSafeMode()) return count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    const uint32_t left = value() - 1;
    count_.store(left, std::memory_order_relaxed);
    return left;
  }
  uint32_t value() const { return count_.load(std::memory_order_relaxed); }
  // So many that references taken and dropped from now on never bring the count to zero.
  void saturate() const { count_.store(uint32_t{1} << 31, std::memory_order_relaxed); }

 private:
  mutable std::atomic<uint32_t> count_{0};
};

// Base of everything that a Ptr can hold.
class ORB_EXPORT PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  uint32_t referenceCount() const { return references_.value(); }

  friend void intrusive_ptr_add_ref(const PtrInterface* object) { object->references_.add(); }
  friend void intrusive_ptr_release(const PtrInterface* object) {
    if (object->references_.drop() == 0) object->lastReferenceGone();
  }

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface();

  // Called when the count has come down to zero, with the count held at one meanwhile. Whoever
  // takes a reference in it keeps the object; otherwise the object is deleted when it returns.
  virtual void onZeroReferences() {}

 private:
  void lastReferenceGone() const;

  ReferenceCount references_;
};

// Keeps an object through a call that may drop the last reference to it. One without references is
// on the stack or under construction: it is not ours to delete.
//
//     const auto keep = Orb::keepAlive(this);
template <class T>
[[nodiscard]] Ptr<T> keepAlive(T* object) {
  return Ptr<T>(object->referenceCount() > 0 ? object : nullptr);
}

// Makes a reference-counted object: auto chip = Orb::make<LogicalChip>("chip0").
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Orb
