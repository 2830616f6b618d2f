#pragma once

// What the names of logical and physical registers and fields have in common: their parts, and the
// full name that follows from them, chip-register or chip-register-field. Different parts can give
// the same full name ("a-b" + "c", "a" + "b-c"), so names are equal only if all parts are.
//
// Names are immutable values; see Orb/Value.h for what every value can do, and Orb/String.h about
// threads.

#include <cstddef>
#include <string>
#include <utility>

#include "Orb/Exception.h"
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

// Base of the register names; T is the name's own type and has a `typeName`.
template <class T>
class RegisterName : public Orb::OrderedValue<T> {
 public:
  const Orb::String& chipName() const { return chipName_; }
  const Orb::String& name() const { return name_; }
  const Orb::String& fullName() const { return fullName_; }
  size_t hash() const { return hash_value(fullName_); }

  static constexpr auto description() {
    return Orb::describe(T::typeName, Orb::named("chipName", &RegisterName::chipName_),
                         Orb::named("name", &RegisterName::name_),
                         Orb::named("fullName", &RegisterName::fullName_));
  }
  static T fromAttributes(Orb::String chipName, Orb::String name, const Orb::String& fullName) {
    T made(std::move(chipName), std::move(name));
    checkFullName(T::typeName, fullName, made.fullName());
    return made;
  }

 protected:
  RegisterName() : fullName_(defaultFullName()) {}
  RegisterName(Orb::String chipName, Orb::String name)
      : chipName_(std::move(chipName)),
        name_(std::move(name)),
        fullName_(joinedName(chipName_, name_)) {}

 private:
  static const Orb::String& defaultFullName() {
    static const Orb::String name = joinedName({}, {});
    return name;
  }

  Orb::String chipName_;
  Orb::String name_;
  Orb::String fullName_;
};

// Base of the field names; R is the name of the register that has the field.
template <class T, class R>
class FieldName : public Orb::OrderedValue<T> {
 public:
  const R& regName() const { return regName_; }
  const Orb::String& name() const { return name_; }
  const Orb::String& fullName() const { return fullName_; }
  size_t hash() const { return hash_value(fullName_); }

  static constexpr auto description() {
    return Orb::describe(T::typeName, Orb::named("regName", &FieldName::regName_),
                         Orb::named("name", &FieldName::name_),
                         Orb::named("fullName", &FieldName::fullName_));
  }
  static T fromAttributes(R regName, Orb::String name, const Orb::String& fullName) {
    T made(std::move(regName), std::move(name));
    checkFullName(T::typeName, fullName, made.fullName());
    return made;
  }

 protected:
  FieldName() : fullName_(defaultFullName()) {}
  FieldName(R regName, Orb::String name)
      : regName_(std::move(regName)),
        name_(std::move(name)),
        fullName_(joinedName(regName_.fullName(), name_)) {}

 private:
  static const Orb::String& defaultFullName() {
    static const Orb::String name = joinedName(R().fullName(), {});
    return name;
  }

  R regName_;
  Orb::String name_;
  Orb::String fullName_;
};

}  // namespace KoruRegFile
