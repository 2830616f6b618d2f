#pragma once

// An immutable, reference-counted string: copying one allocates nothing, and the text is
// NUL-terminated. Look-ups take std::string_view, to which a String converts, so that nobody has to
// make a String just to ask a question. Made on any thread; shared between threads only in
// thread-safe mode (Orb/Ptr.h), or when its text was made for that.

#include <fmt/format.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Orb/Fetch.h"
#include "Orb/Ptr.h"

namespace Orb {

class ORB_EXPORT String {
 public:
  String() noexcept = default;
  // Throws std::logic_error for a null pointer, std::length_error for 4 GiB of text or more.
  String(const char* text);
  String(std::string_view text);
  String(const std::string& text) : String(std::string_view(text)) {}
  String(const String& other) noexcept : rep_(other.rep_) {
    if (rep_) rep_->references.add();
  }
  String(String&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  String& operator=(String other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~String() {
    if (rep_ && rep_->references.drop() == 0) destroy(rep_);
  }

  const char* c_str() const noexcept { return rep_ ? rep_->text() : ""; }
  const char* data() const noexcept { return c_str(); }
  size_t size() const noexcept { return rep_ ? rep_->size : 0; }
  bool empty() const noexcept { return rep_ == nullptr; }
  std::string_view view() const noexcept { return {c_str(), size()}; }
  operator std::string_view() const noexcept { return view(); }
  explicit operator std::string() const { return std::string(view()); }

  // How many share the text; 0 for an empty one.
  uint32_t referenceCount() const noexcept { return rep_ ? rep_->references.value() : 0; }

  // Make the text, which all copies share, one that threads may copy and drop at once in any mode:
  // counted atomically, or not at all and never freed, for texts of static life. To be called
  // before a second thread sees the text.
  void shareWithThreads() const noexcept {
    if (rep_) rep_->references.alwaysAtomic();
  }
  void keepForever() const noexcept {
    if (rep_) rep_->references.immortal();
  }

  // Asks for the memory of a text of usual length (Orb/Fetch.h).
  void fetch() const noexcept {
    if (!rep_) return;
    fetchLine(rep_);
    fetchLine(rep_->text() + 24);
  }

  friend bool operator==(const String& a, const String& b) noexcept {
    return a.rep_ == b.rep_ || a.view() == b.view();
  }
  friend bool operator==(const String& a, std::string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const String& a, const char* b) { return a.view() == b; }
  friend bool operator==(const String& a, const std::string& b) noexcept { return a.view() == b; }
  friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
    return a.view() <=> b.view();
  }
  friend size_t hash_value(const String& s) noexcept {
    return std::hash<std::string_view>()(s.view());
  }
  ORB_EXPORT friend std::ostream& operator<<(std::ostream& out, const String& s);

 private:
  // The text follows the header in the same allocation. An empty string has no Rep.
  struct Rep {
    ReferenceCount references;
    uint32_t size;
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
  };
  static Rep* create(std::string_view text);
  static void destroy(Rep* rep) noexcept;

  Rep* rep_ = nullptr;
};

// Texts in other forms, a literal or a std::string, of which no String need be made to ask for a
// name.
template <class Text>
concept OtherText =
    std::convertible_to<const Text&, std::string_view> && !std::derived_from<Text, String> &&
    !std::same_as<Text, std::nullptr_t>;
// Two texts, of which at least one is such.
template <class Text, class Second>
concept OtherTextWith = std::convertible_to<const Text&, std::string_view> &&
    std::convertible_to<const Second&, std::string_view> &&(OtherText<Text> || OtherText<Second>);

// Hashes String, std::string and std::string_view alike, for look-ups without a conversion.
struct StringHash {
  using is_transparent = void;
  using is_avalanching = void;
  size_t operator()(std::string_view text) const noexcept {
    return std::hash<std::string_view>()(text);
  }
};

}  // namespace Orb

template <>
struct std::hash<Orb::String> : Orb::StringHash {};

template <>
struct fmt::formatter<Orb::String> : fmt::formatter<fmt::string_view> {
  template <class Context>
  auto format(const Orb::String& s, Context& context) const {
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), context);
  }
};
