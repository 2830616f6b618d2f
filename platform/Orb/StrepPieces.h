#pragma once

// The string form of an attribute, a little at a time, for collections with very many entries. The
// entity may change between two pieces: what was written stays as it was, and what follows is what
// there is then. Used on the framework's thread.

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "Orb/Entity.h"
#include "Orb/Strep.h"

namespace Orb {

class StrepPieces {
 public:
  virtual ~StrepPieces() = default;
  // Appends some more of it; false when that was the last. Throws std::runtime_error when entries
  // have come or gone, so that nobody knows which are missing.
  virtual bool next(std::string& out, const Entity& entity) = 0;
};

namespace detail {

template <class E, class Read>
class WholeStrep : public StrepPieces {
 public:
  explicit WholeStrep(Read read) : read_(read) {}
  bool next(std::string& out, const Entity& entity) override {
    using T = std::remove_cvref_t<std::invoke_result_t<Read, const E&>>;
    Strep<T>::write(out, std::invoke(read_, static_cast<const E&>(entity)));
    return false;
  }

 private:
  const Read read_;
};

// An entry is found again by its key.
template <class E, class Read>
class CollectionStrep : public StrepPieces {
 public:
  explicit CollectionStrep(Read read) : read_(read) {}
  bool next(std::string& out, const Entity& entity) override {
    const C& collection = std::invoke(read_, static_cast<const E&>(entity));
    auto at = collection.begin();
    if (last_) {
      at = collection.at(*last_);
      if (collection.size() != size_ || at == collection.end()) {
        throw std::runtime_error("entries came or went while the collection was written");
      }
      ++at;
    }
    if (at == collection.end()) {
      out += last_ ? "}" : "{}";
      return false;
    }
    out += last_ ? ", " : "{";
    Strep<typename C::Key>::write(out, at->first);
    out += ": ";
    Strep<typename C::Value>::write(out, at->second);
    last_.emplace(at->first);
    size_ = collection.size();
    return true;
  }

 private:
  using C = std::remove_cvref_t<std::invoke_result_t<Read, const E&>>;

  const Read read_;
  std::optional<typename C::Key> last_;
  size_t size_ = 0;
};

// A collection that is not copied to be looked at.
template <class C>
concept Resumable = std::is_lvalue_reference_v<C> &&
    requires(C collection, typename std::remove_cvref_t<C>::Key key) {
  collection.at(key) == collection.end();
};

template <class E, class Read>
std::unique_ptr<StrepPieces> strepPieces(Read read) {
  if constexpr (Resumable<std::invoke_result_t<Read, const E&>>) {
    return std::make_unique<CollectionStrep<E, Read>>(read);
  } else {
    return std::make_unique<WholeStrep<E, Read>>(read);
  }
}

}  // namespace detail

}  // namespace Orb
