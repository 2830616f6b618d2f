#pragma once

// Names of the fields of one chip, each made once: all that ask for a name share it. That spares
// memory, and time, since shared names are equal at first sight. Names stay for as long as the pool
// does. Used on the framework's thread.

#include <boost/unordered/unordered_flat_set.hpp>
#include <functional>

#include "KoruRegFile/FieldNames.h"
#include "Orb/Hash.h"

namespace KoruRegFile {

// R is the register name, F the field name.
template <class R, class F>
class FieldNamePool {
 public:
  // `chipName` must outlive the pool.
  explicit FieldNamePool(const Orb::String& chipName) : chipName_(chipName) {}

  R regName(const Orb::String& reg) {
    const auto found = registers_.find(RegisterNameQuery(chipName_, reg));
    return found != registers_.end() ? *found : *registers_.insert(R(chipName_, reg)).first;
  }
  F fieldName(const Orb::String& reg, const Orb::String& field) {
    const R inRegister = regName(reg);
    const auto found = fields_.find(FieldNameQuery<R>(inRegister, field));
    return found != fields_.end() ? *found : *fields_.insert(F(inRegister, field)).first;
  }

 private:
  template <class Name>
  struct Hash : Orb::KeyHash<Name> {
    using is_transparent = void;
  };
  template <class Name>
  using Names = boost::unordered_flat_set<Name, Hash<Name>, std::equal_to<>>;

  const Orb::String& chipName_;
  Names<R> registers_;
  Names<F> fields_;
};

}  // namespace KoruRegFile
