#pragma once

// Asking a collection for the name of a register or a field (KoruRegFile/FieldNames.h) without
// making it. Used on any thread.

#include <fmt/format.h>

#include <cstddef>
#include <string_view>

#include "Orb/String.h"

namespace KoruRegFile {

// The hash of a full name, from the texts that it is joined of. Allocates nothing unless names are
// very long.
class NameHash {
 public:
  template <class... More>
  explicit NameHash(std::string_view first, const More&... more) {
    fmt::memory_buffer joined;
    joined.append(first);
    ((joined.push_back('-'), joined.append(std::string_view(more))), ...);
    hash_ = Orb::StringHash()({joined.data(), joined.size()});
  }
  size_t hash() const { return hash_; }

 private:
  size_t hash_;
};

// What asks for a name in a collection without making it: hashes and compares as the name itself.
// Valid while the texts that it was made from are.
class RegisterNameQuery : public NameHash {
 public:
  RegisterNameQuery(std::string_view chipName, std::string_view name)
      : NameHash(chipName, name), chipName_(chipName), name_(name) {}
  std::string_view chipName() const { return chipName_; }
  std::string_view name() const { return name_; }

 private:
  std::string_view chipName_;
  std::string_view name_;
};

// The same for the name of a field of a register whose name is there; R is the register name.
template <class R>
class FieldNameQuery : public NameHash {
 public:
  FieldNameQuery(const R& regName, std::string_view name)
      : FieldNameQuery(regName, name, NameHash(regName.fullName(), name)) {}
  // For those who know the hash already.
  FieldNameQuery(const R& regName, std::string_view name, NameHash hash)
      : NameHash(hash), regName_(regName), name_(name) {}
  const R& regName() const { return regName_; }
  std::string_view name() const { return name_; }

 private:
  const R& regName_;
  std::string_view name_;
};

}  // namespace KoruRegFile
