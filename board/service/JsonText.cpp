#include "board/service/JsonText.h"

#include <nlohmann/json.hpp>

namespace Board {

namespace {

using nlohmann::ordered_json;

// Each step takes what comes next, or says that it is something else.
class PlainScanner {
 public:
  explicit PlainScanner(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

  bool object(ordered_json::object_t& members) {
    if (!take('{')) return false;
    if (take('}')) return isAtEnd();
    do {
      std::string_view key;
      ordered_json value;
      if (!text(key) || !take(':') || !scalar(value)) return false;
      // (The parser knows what becomes of a key that comes twice.)
      for (const auto& member : members) {
        if (member.first == key) return false;
      }
      members.emplace_back(std::string(key), std::move(value));
    } while (take(','));
    return take('}') && isAtEnd();
  }

 private:
  void skipSpace() {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r' || *at_ == '\n')) ++at_;
  }
  bool isAtEnd() {
    skipSpace();
    return at_ == end_;
  }
  bool take(char c) {
    skipSpace();
    if (at_ == end_ || *at_ != c) return false;
    ++at_;
    return true;
  }
  // Of printable ASCII, with nothing escaped.
  bool text(std::string_view& found) {
    if (!take('"')) return false;
    const char* const begin = at_;
    while (at_ != end_ && *at_ >= ' ' && *at_ <= '~' && *at_ != '"' && *at_ != '\\') ++at_;
    found = {begin, static_cast<size_t>(at_ - begin)};
    return at_ != end_ && *at_++ == '"';
  }
  bool word(std::string_view expected) {
    if (!std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with(expected)) return false;
    at_ += expected.size();
    return true;
  }
  // What follows has to be a comma or the end: no fraction and no exponent.
  bool number(ordered_json& value) {
    constexpr ptrdiff_t mostDigits = 19;
    const char* const begin = at_;
    uint64_t number = 0;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9' && at_ - begin < mostDigits) {
      number = 10 * number + static_cast<uint64_t>(*at_++ - '0');
    }
    if (at_ == begin || (*begin == '0' && at_ - begin > 1)) return false;
    value = number;
    return true;
  }
  bool scalar(ordered_json& value) {
    skipSpace();
    if (at_ == end_) return false;
    std::string_view found;
    switch (*at_) {
      case '"':
        if (!text(found)) return false;
        value = std::string(found);
        return true;
      case 't':
        value = true;
        return word("true");
      case 'f':
        value = false;
        return word("false");
      case 'n':
        return word("null");
      default:
        return number(value);
    }
  }

  const char* at_;
  const char* const end_;
};

}  // namespace

std::optional<ordered_json> plainObject(std::string_view text) {
  constexpr size_t usual = 8;  // members
  ordered_json object = ordered_json::object();
  auto& members = object.get_ref<ordered_json::object_t&>();
  members.reserve(usual);
  if (!PlainScanner(text).object(members)) return std::nullopt;
  return object;
}

bool isTooDeep(std::string_view json) {
  size_t depth = 0;
  bool inString = false;
  for (size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (c == '"') inString = !inString;
    if (inString) {
      if (c == '\\') ++i;  // whatever is escaped ends no string
      continue;
    }
    if ((c == '[' || c == '{') && ++depth > deepestJson) return true;
    if ((c == ']' || c == '}') && depth > 0) --depth;
  }
  return false;
}

std::string jsonText(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string quotable(const std::string& text) {
  const std::string quoted = jsonText(text);
  return quoted.substr(1, quoted.size() - 2);
}

}  // namespace Board
