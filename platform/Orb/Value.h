#pragma once

// Value types: plain copyable values with named attributes. A value describes its attributes once,
//
//     class Point : public Orb::Value<Point> {
//      public:
//       Point(uint8_t x, uint8_t y);
//       static constexpr auto description() {
//         return Orb::describe("Geo::Point", Orb::named("x", &Point::x_), Orb::named("y",
//         &Point::y_));
//       }
//
// and gets equality, operator bool (differs from the default value), its string form, the exact
// parser of that form and operator<<; deriving from Orb::OrderedValue adds the lexicographic order.
// The parser hands the attributes to T::fromAttributes(...) if there is one and to the constructor
// otherwise, so that limits hold for parsed values too. Values have no state beyond their
// attributes and may be used on any thread (their strings: see Orb/String.h).

#include <compare>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>

#include "Orb/Enum.h"
#include "Orb/Strep.h"

namespace Orb {

template <class C, class T>
struct NamedMember {
  using Type = T;
  const char* name;
  T C::*member;
  const T& of(const C& value) const { return value.*member; }
};

template <class C, class T>
struct NamedGetter {
  using Type = T;
  const char* name;
  const T& (C::*getter)() const;
  const T& of(const C& value) const { return (value.*getter)(); }
};

// An attribute is a member, or what a getter refers to.
template <class C, class T>
constexpr NamedMember<C, T> named(const char* name, T C::*member) {
  return {name, member};
}
template <class C, class T>
constexpr NamedGetter<C, T> named(const char* name, const T& (C::*getter)() const) {
  return {name, getter};
}

template <class... Members>
struct ValueDescription {
  const char* typeName;
  std::tuple<Members...> members;
};

template <class... Members>
constexpr ValueDescription<Members...> describe(const char* typeName, Members... members) {
  return {typeName, {members...}};
}

template <class T>
class Value {
 public:
  // Whether the value differs from the default value of its type.
  explicit operator bool() const {
    static const T defaultValue;
    return !(static_cast<const T&>(*this) == defaultValue);
  }

  // A value that can tell quickly that another has the very same attributes says so by
  // sharesAllWith.
  friend bool operator==(const T& a, const T& b) {
    if constexpr (requires { a.sharesAllWith(b); }) {
      if (a.sharesAllWith(b)) return true;
    }
    return std::apply([&](const auto&... m) { return ((m.of(a) == m.of(b)) && ...); },
                      T::description().members);
  }
  friend std::ostream& operator<<(std::ostream& out, const T& value) {
    return out << valueToStrep(value);
  }

 protected:
  Value() = default;
  ~Value() = default;
  Value(const Value&) = default;
  Value& operator=(const Value&) = default;
};

// A value with the lexicographic order of its attributes.
template <class T>
class OrderedValue : public Value<T> {
 public:
  friend std::strong_ordering operator<=>(const T& a, const T& b) {
    std::strong_ordering order = std::strong_ordering::equal;
    std::apply(
        [&](const auto&... m) {
          static_cast<void>(((order = m.of(a) <=> m.of(b), order == 0) && ...));
        },
        T::description().members);
    return order;
  }
};

template <class T>
concept ValueType = std::derived_from<T, Value<T>>;

template <ValueType T>
struct Strep<T> {
  // A value that cannot be read back says so, static constexpr bool parses = false, and has a
  // fromStrep(StrepReader&) that does what reading it is to do instead.
  static constexpr bool parses = [] {
    if constexpr (requires { T::parses; }) {
      return T::parses;
    } else {
      return true;
    }
  }();

  static const char* typeName() { return T::description().typeName; }

  static void write(std::string& out, const T& value) {
    out.append("Value('").append(typeName()).append("', ** {");
    const char* separator = "";
    const auto writeOne = [&](const auto& m) {
      out.append(separator).append("'").append(m.name).append("': ");
      Strep<typename std::remove_cvref_t<decltype(m)>::Type>::write(out, m.of(value));
      separator = ", ";
    };
    std::apply([&](const auto&... m) { (writeOne(m), ...); }, T::description().members);
    out += "})";
  }

  static T read(StrepReader& in) {
    if constexpr (parses) {
      return parse(in);
    } else {
      return T::fromStrep(in);
    }
  }

 private:
  static T parse(StrepReader& in) {
    in.expect("Value('");
    in.expect(typeName());
    in.expect("', ** {");
    const char* separator = "";
    const auto readOne = [&](const auto& m) {
      in.expect(separator);
      in.expect("'");
      in.expect(m.name);
      in.expect("': ");
      separator = ", ";
      return Strep<typename std::remove_cvref_t<decltype(m)>::Type>::read(in);
    };
    // Braces keep the attributes in the order of their description.
    auto attributes = std::apply(
        [&](const auto&... m) {
          return std::tuple<typename std::remove_cvref_t<decltype(m)>::Type...>{readOne(m)...};
        },
        T::description().members);
    in.expect("})");
    return std::apply([](auto&&... a) { return build(std::move(a)...); }, std::move(attributes));
  }

  template <class... Attributes>
  static T build(Attributes&&... attributes) {
    if constexpr (requires { T::fromAttributes(std::move(attributes)...); }) {
      return T::fromAttributes(std::move(attributes)...);
    } else {
      return T(std::move(attributes)...);
    }
  }
};

}  // namespace Orb
