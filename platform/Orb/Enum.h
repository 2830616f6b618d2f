#pragma once

// Enumerations with names. An enumeration is described once, beside its definition:
//
//     template <> struct Orb::EnumDescription<Colour> {
//       static constexpr const char* typeName = "Paint::Colour";
//       static constexpr EnumName<Colour> names[] = {{Colour::red, "red"}, {Colour::blue, "blue"}};
//     };
//
// Conversions in both directions, the string form and its parser follow from that. Stateless;
// usable from any thread.

#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "Orb/Strep.h"

namespace Orb {

template <class E>
struct EnumName {
  E value;
  const char* name;
};

template <class E>
struct EnumDescription;

template <class E>
concept DescribedEnum = std::is_enum_v<E> && requires {
  EnumDescription<E>::typeName;
};

namespace detail {
[[noreturn]] ORB_EXPORT void throwNoEnumName(const char* typeName, std::string_view name);
[[noreturn]] ORB_EXPORT void throwNoEnumNumber(const char* typeName, uint64_t number);
}  // namespace detail

// The enumerator of that number; throws RangeException when there is none.
template <DescribedEnum E>
E enumFromNumber(uint64_t number) {
  for (const auto& entry : EnumDescription<E>::names) {
    if (static_cast<uint64_t>(entry.value) == number) return entry.value;
  }
  detail::throwNoEnumNumber(EnumDescription<E>::typeName, number);
}

// The enumerator of that exact name; throws RangeException when there is none.
template <DescribedEnum E>
E enumFromName(std::string_view name) {
  for (const auto& entry : EnumDescription<E>::names) {
    if (entry.name == name) return entry.value;
  }
  detail::throwNoEnumName(EnumDescription<E>::typeName, name);
}

// The name; throws RangeException for a number outside the description. The text is a literal.
template <DescribedEnum E>
const char* enumName(E value) {
  for (const auto& entry : EnumDescription<E>::names) {
    if (entry.value == value) return entry.name;
  }
  detail::throwNoEnumNumber(EnumDescription<E>::typeName, static_cast<uint64_t>(value));
}

template <DescribedEnum E>
struct Strep<E> {
  static constexpr bool parses = true;
  static const char* typeName() { return EnumDescription<E>::typeName; }
  static void write(std::string& out, E value) { out += enumName(value); }
  static E read(StrepReader& in) {
    const std::string_view word = in.word();
    for (const auto& entry : EnumDescription<E>::names) {
      if (entry.name == word) return entry.value;
    }
    in.fail(typeName());
  }
};

}  // namespace Orb
