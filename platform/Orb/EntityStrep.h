#pragma once

// String forms of entities and of their collections.
//
// A pointer to an entity prints as None or as Entity('<type>', '<name>'). It is read back through
// the directory of named entities: those that hold a DirectoryEntry and are alive. The directory
// does not keep them alive. A collection prints as {<key>: <value>, ...} and is not read back.

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/Collection.h"
#include "Orb/Entity.h"
#include "Orb/Strep.h"

namespace Orb {

// Held by an entity that can be found by type and name; lists it for as long as it lives.
class ORB_EXPORT DirectoryEntry {
 public:
  explicit DirectoryEntry(Entity& entity);
  ~DirectoryEntry();
  DirectoryEntry(const DirectoryEntry&) = delete;
  DirectoryEntry& operator=(const DirectoryEntry&) = delete;

 private:
  uint64_t number_;
};

// All entities that can be found by name, in the order of their creation.
ORB_EXPORT std::vector<Ptr<Entity>> namedEntities();
// The first of them of that type and name: a number that stands for it and for no other, ever; 0
// when there is none.
ORB_EXPORT uint64_t namedEntityNumber(std::string_view type, std::string_view name);
// Null when it is gone.
ORB_EXPORT Ptr<Entity> namedEntity(uint64_t number);

ORB_EXPORT void appendEntityStrep(std::string& out, const Entity* entity);
// Null for None. Throws ParseException when no such entity lives, or more than one.
ORB_EXPORT Ptr<Entity> readEntityStrep(StrepReader& in);

template <class E>
struct Strep<Ptr<E>> {
  static constexpr bool parses = true;
  static const char* typeName() { return "Entity"; }
  static void write(std::string& out, const Ptr<E>& entity) {
    appendEntityStrep(out, entity.get());
  }
  static Ptr<E> read(StrepReader& in) {
    const Ptr<Entity> entity = readEntityStrep(in);
    Ptr<E> typed = dynamic_pointer_cast<E>(entity);
    if (entity && !typed) in.fail("an entity of another type");
    return typed;
  }
};

template <class C>
requires requires(const C& c, typename C::Key key) {
  { c.find(key) } -> std::same_as<const typename C::Value*>;
}
struct Strep<C> {
  static constexpr bool parses = false;
  static const char* typeName() { return "Collection"; }
  static void write(std::string& out, const C& collection) {
    out += '{';
    const char* separator = "";
    for (const auto& [key, value] : collection) {
      out += separator;
      Strep<typename C::Key>::write(out, key);
      out += ": ";
      Strep<typename C::Value>::write(out, value);
      separator = ", ";
    }
    out += '}';
  }
};

}  // namespace Orb
