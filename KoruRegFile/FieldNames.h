#pragma once

// What the names of logical and physical registers and fields have in common: their parts, and the
// full name that follows from them, chip-register or chip-register-field. Different parts can give
// the same full name ("a-b" + "c", "a" + "b-c"), so names are equal only if all parts are. Names
// are immutable values (Orb/Value.h); about threads see Orb/String.h.

#include <cstddef>
#include <string>
#include <utility>

#include "KoruRegFile/NameQuery.h"
#include "Orb/Exception.h"
#include "Orb/Fetch.h"
#include "Orb/Ptr.h"
#include "Orb/String.h"
#include "Orb/Value.h"

namespace KoruRegFile {

// `first` + "-" + `second`.
inline Orb::String joinedName(const Orb::String& first, const Orb::String& second) {
  std::string joined;
  joined.reserve(first.size() + 1 + second.size());
  joined.append(first.view()).append("-").append(second.view());
  return Orb::String(joined);
}

// Throws Orb::ParseException when a full name that was read is not the one that follows from the
// parts.
inline void checkFullName(const char* typeName, const Orb::String& read,
                          const Orb::String& derived) {
  if (read == derived) return;
  throw Orb::ParseException(std::string(typeName) + ": fullName '" + std::string(read) +
                            "' instead of '" + std::string(derived) + "'");
}

// Base of what copies of a name share; counted, but without the virtual functions of an object.
template <class Parts>
struct SharedParts {
  mutable Orb::ReferenceCount references;
  friend void intrusive_ptr_add_ref(const Parts* parts) { parts->references.add(); }
  friend void intrusive_ptr_release(const Parts* parts) {
    if (parts->references.drop() == 0) delete parts;
  }
};

// Parts that all threads share, as default values do, are not counted.
template <class Parts>
Orb::Ptr<const Parts> immortal(const Parts* parts) {
  parts->references.immortal();
  parts->fullName.keepForever();
  return parts;
}

// Base of the register names; T is the name's own type and has a `typeName`. Copies share the
// parts; nothing is moved from, so that a name always has them.
template <class T>
class RegisterName : public Orb::OrderedValue<T> {
 public:
  RegisterName(const RegisterName&) = default;
  RegisterName& operator=(const RegisterName&) = default;

  const Orb::String& chipName() const { return parts_->chipName; }
  const Orb::String& name() const { return parts_->name; }
  const Orb::String& fullName() const { return parts_->fullName; }
  size_t hash() const { return hash_; }
  // These ask for what comparing the name with a query will touch, one after the other
  // (Orb/Fetch.h).
  void fetch() const { Orb::fetchLine(parts_.get()); }
  void fetchText() const { parts_->name.fetch(); }
  bool sharesAllWith(const RegisterName& other) const { return parts_ == other.parts_; }

  static constexpr auto description() {
    return Orb::describe(T::typeName, Orb::named("chipName", &RegisterName::chipName),
                         Orb::named("name", &RegisterName::name),
                         Orb::named("fullName", &RegisterName::fullName));
  }
  static T fromAttributes(Orb::String chipName, Orb::String name, const Orb::String& fullName) {
    T made(std::move(chipName), std::move(name));
    checkFullName(T::typeName, fullName, made.fullName());
    return made;
  }
  friend bool operator==(const RegisterName& name, const RegisterNameQuery& query) {
    return name.chipName() == query.chipName() && name.name() == query.name();
  }

 protected:
  RegisterName() : parts_(defaultParts()), hash_(hash_value(parts_->fullName)) {}
  RegisterName(Orb::String chipName, Orb::String name)
      : parts_(new Parts(std::move(chipName), std::move(name))),
        hash_(hash_value(parts_->fullName)) {}
  ~RegisterName() = default;

 private:
  struct Parts : SharedParts<Parts> {
    Parts(Orb::String c, Orb::String n)
        : chipName(std::move(c)), name(std::move(n)), fullName(joinedName(chipName, name)) {}
    const Orb::String chipName;
    const Orb::String name;
    const Orb::String fullName;
  };
  static const Orb::Ptr<const Parts>& defaultParts() {
    static const Orb::Ptr<const Parts> parts = immortal(new Parts({}, {}));
    return parts;
  }

  Orb::Ptr<const Parts> parts_;
  size_t hash_;  // here, so that a look-up need not touch the parts
};

// Base of the field names, which share their parts likewise; R is the name of the register that has
// the field.
template <class T, class R>
class FieldName : public Orb::OrderedValue<T> {
 public:
  FieldName(const FieldName&) = default;
  FieldName& operator=(const FieldName&) = default;

  const R& regName() const { return parts_->regName; }
  const Orb::String& name() const { return parts_->name; }
  const Orb::String& fullName() const { return parts_->fullName; }
  size_t hash() const { return hash_; }
  // These ask for what comparing the name with a query will touch, one after the other
  // (Orb/Fetch.h).
  void fetch() const { Orb::fetchLine(parts_.get()); }
  void fetchText() const { parts_->name.fetch(); }
  bool sharesAllWith(const FieldName& other) const { return parts_ == other.parts_; }

  static constexpr auto description() {
    return Orb::describe(T::typeName, Orb::named("regName", &FieldName::regName),
                         Orb::named("name", &FieldName::name),
                         Orb::named("fullName", &FieldName::fullName));
  }
  static T fromAttributes(R regName, Orb::String name, const Orb::String& fullName) {
    T made(std::move(regName), std::move(name));
    checkFullName(T::typeName, fullName, made.fullName());
    return made;
  }
  friend bool operator==(const FieldName& name, const FieldNameQuery<R>& query) {
    return name.name() == query.name() && name.regName() == query.regName();
  }

 protected:
  FieldName() : parts_(defaultParts()), hash_(hash_value(parts_->fullName)) {}
  FieldName(R regName, Orb::String name)
      : parts_(new Parts(std::move(regName), std::move(name))),
        hash_(hash_value(parts_->fullName)) {}
  ~FieldName() = default;

 private:
  struct Parts : SharedParts<Parts> {
    Parts(R r, Orb::String n)
        : regName(std::move(r)),
          name(std::move(n)),
          fullName(joinedName(regName.fullName(), name)) {}
    const R regName;
    const Orb::String name;
    const Orb::String fullName;
  };
  static const Orb::Ptr<const Parts>& defaultParts() {
    static const Orb::Ptr<const Parts> parts = immortal(new Parts({}, {}));
    return parts;
  }

  Orb::Ptr<const Parts> parts_;
  size_t hash_;  // here, so that a look-up need not touch the parts
};

}  // namespace KoruRegFile
