#pragma once

// String forms ("streps"): the one-line text of a value, and the exact parser that reads it back.
//
//   numbers        decimal: 42            booleans     True, False
//   strings        quoted: 'it\'s'        enumerations the bare name: i2c
//   values         Value('KoruRegFile::ShadowFieldKey', ** {'address': 5, 'start': 0, 'size': 8})
//   entities       Entity('KoruRegFile::TransportMethod', 'chip0'), or None
//
// Inside quotes, a quote and a backslash are written with a backslash before them, line feed,
// carriage return and tab as \n, \r and \t, other control characters as \x1f; all other bytes stand
// for themselves. A parser takes exactly what the writer writes. Stateless; usable from any thread.

#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "Orb/Exception.h"
#include "Orb/Export.h"
#include "Orb/String.h"

namespace Orb {

// Reads a string form from front to back.
class ORB_EXPORT StrepReader {
 public:
  explicit StrepReader(std::string_view text) : text_(text) {}

  // Reads exactly `literal`.
  void expect(std::string_view literal);
  // Reads `literal` if it comes next; returns whether it did.
  bool accept(std::string_view literal);
  // Reads a quoted string.
  std::string quoted();
  // Reads letters, digits, '_' and '-'.
  std::string_view word();
  // Reads an unsigned decimal number without superfluous zeroes.
  uint64_t number(std::string_view typeName, uint64_t highest);
  // Nothing may follow.
  void expectEnd();
  // Throws a ParseException that names the place: "expected <what> at byte 12 of ...".
  [[noreturn]] void fail(std::string_view what) const;

 private:
  char escaped();

  std::string_view text_;
  size_t position_ = 0;
};

// How a type is written and read; specialised per kind of type. Members:
//   static const char* typeName();
//   static void write(std::string& out, const T& value);
//   static T read(StrepReader& in);          absent or unusable when `parses` is false
//   static constexpr bool parses;
template <class T>
struct Strep;

// The string form of any value that has one.
template <class T>
std::string valueToStrep(const T& value) {
  std::string text;
  Strep<T>::write(text, value);
  return text;
}

// Parses a string form. Throws ParseException when it is malformed, RangeException when it holds a
// number outside its type's range; no partial value is made.
template <class T>
T strepToValue(std::string_view text) {
  StrepReader reader(text);
  T value = Strep<T>::read(reader);
  reader.expectEnd();
  return value;
}

// Appends `text` in quotes.
ORB_EXPORT void appendQuoted(std::string& out, std::string_view text);

template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) struct Strep<T> {
  static constexpr bool parses = true;
  static const char* typeName() {
    constexpr const char* names[] = {"U8", "U16", "", "U32", "", "", "", "U64"};
    return names[sizeof(T) - 1];
  }
  static void write(std::string& out, T value) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof digits, uint64_t{value}).ptr;
    out.append(digits, end);
  }
  static T read(StrepReader& in) {
    return static_cast<T>(in.number(typeName(), std::numeric_limits<T>::max()));
  }
};

template <>
struct Strep<bool> {
  static constexpr bool parses = true;
  static const char* typeName() { return "bool"; }
  static void write(std::string& out, bool value) { out += value ? "True" : "False"; }
  static bool read(StrepReader& in) {
    if (in.accept("True")) return true;
    if (in.accept("False")) return false;
    in.fail("True or False");
  }
};

template <>
struct Strep<String> {
  static constexpr bool parses = true;
  static const char* typeName() { return "String"; }
  static void write(std::string& out, const String& value) { appendQuoted(out, value); }
  static String read(StrepReader& in) { return String(in.quoted()); }
};

template <>
struct Strep<std::string> {
  static constexpr bool parses = true;
  static const char* typeName() { return "String"; }
  static void write(std::string& out, const std::string& value) { appendQuoted(out, value); }
  static std::string read(StrepReader& in) { return in.quoted(); }
};

}  // namespace Orb
