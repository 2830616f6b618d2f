#pragma once

// For those who come back to an object that may be gone by then, and are not to keep it alive: the
// object has an Anchor, they keep an Anchored. Used on the object's thread.

#include <memory>

namespace Orb {

template <class T>
class Anchored {
 public:
  Anchored() = default;
  // Null when the object is gone.
  T* get() const { return place_ ? *place_ : nullptr; }

 private:
  template <class>
  friend class Anchor;
  explicit Anchored(std::shared_ptr<T*> place) : place_(std::move(place)) {}
  std::shared_ptr<T*> place_;
};

// A member of the object.
template <class T>
class Anchor {
 public:
  explicit Anchor(T& object) : anchored_(std::make_shared<T*>(&object)) {}
  ~Anchor() { *anchored_.place_ = nullptr; }
  Anchor(const Anchor&) = delete;
  Anchor& operator=(const Anchor&) = delete;

  const Anchored<T>& anchored() const { return anchored_; }

 private:
  Anchored<T> anchored_;
};

}  // namespace Orb
