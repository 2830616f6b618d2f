#include "board/description/internal/TomlText.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "Orb/Descriptor.h"
#include "board/description/SystemFile.h"
#include "board/description/internal/Toml.h"

namespace Board {

namespace {

constexpr size_t longestFile = 1 << 24;
constexpr unsigned mostNested = 32;    // brackets within each other
constexpr unsigned mostKeyParts = 32;  // of a dotted key

std::string reasonOf(int error) { return std::generic_category().message(error); }

// How many bytes the UTF-8 letter at the front has; 0 when it is none.
size_t letterSize(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t first = byte(0);
  if (first < 0x80) return 1;
  const size_t size = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
  if (size == 0 || text.size() < size) return 0;
  // No surrogates, nothing beyond the last letter, and nothing longer than it need be.
  if (first == 0xE0 && byte(1) < 0xA0) return 0;
  if (first == 0xED && byte(1) > 0x9F) return 0;
  if (first == 0xF0 && byte(1) < 0x90) return 0;
  if (first == 0xF4 && byte(1) > 0x8F) return 0;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return size;
}

// Goes through the text once, and knows of TOML what strings and comments are.
class Check {
 public:
  Check(const std::string& path, std::string_view text) : path_(path), text_(text) {}

  void run() {
    if (text_.starts_with("\xEF\xBB\xBF")) at_ = 3;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (c == '"' || c == '\'') {
        skipString(c);
      } else if (c == '#') {
        while (at_ < text_.size() && text_[at_] != '\n') skipLetter();
      } else {
        look(c);
        skipLetter();
      }
    }
  }

 private:
  [[noreturn]] void refuse(const std::string& why) const {
    throw FileError(fmt::format("{}:{}: {}", path_, line_, why));
  }

  // What stands outside strings and comments.
  void look(char c) {
    if (static_cast<uint8_t>(c) >= 0x80) refuse("letters outside ASCII have to stand in quotes");
    if (c == '\n' || c == ',' || c == '{' || c == '=') keyParts_ = 1;
    if (c == '.' && ++keyParts_ > mostKeyParts) {
      refuse(fmt::format("a key has more than {} parts", mostKeyParts));
    }
    if (c == '[' && isFirst_) checkHeader();
    if ((c == '[' || c == '{') && ++depth_ > mostNested) {
      refuse(fmt::format("more than {} brackets are open", mostNested));
    }
    if ((c == ']' || c == '}') && depth_ > 0) --depth_;
    if (c == '\n') {
      isFirst_ = depth_ == 0;
    } else if (c != ' ' && c != '\t' && c != '\r') {
      isFirst_ = false;
    }
  }

  // The library takes for granted that a table's name begins with what a name can begin with.
  void checkHeader() const {
    size_t at = at_ + 1;
    if (at < text_.size() && text_[at] == '[') ++at;
    while (at < text_.size() && (text_[at] == ' ' || text_[at] == '\t')) ++at;
    const auto isName = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             c == '-' || c == '_' || c == '"' || c == '\'';
    };
    if (at == text_.size() || !isName(text_[at])) refuse("a table's header needs a name");
  }

  void skipLetter() {
    const char c = text_[at_];
    const bool isControl =
        (static_cast<uint8_t>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == '\x7F';
    if (isControl) refuse(fmt::format("there is a control character, {:#04x}", c));
    const size_t size = letterSize(text_.substr(at_));
    if (size == 0) refuse(fmt::format("the byte {:#x} is no UTF-8", static_cast<uint8_t>(c)));
    if (c == '\n') ++line_;
    at_ += size;
  }

  void skipString(char quote) {
    isFirst_ = false;
    const std::string three(3, quote);
    const bool isLong = text_.substr(at_).starts_with(three);
    at_ += isLong ? 3 : 1;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (isLong && text_.substr(at_).starts_with(three)) return endLong(quote);
      if (!isLong && c == quote) return static_cast<void>(++at_);
      if (!isLong && c == '\n') return;  // the library says that it has no end
      if (c == '\\' && quote == '"' && at_ + 1 < text_.size()) skipLetter();
      skipLetter();
    }
  }

  // Up to two quotes may belong to the string before the three that end it.
  void endLong(char quote) {
    for (int count = 0; count < 5 && at_ < text_.size() && text_[at_] == quote; ++count) ++at_;
  }

  const std::string& path_;
  const std::string_view text_;
  size_t at_ = 0;
  size_t line_ = 1;
  unsigned depth_ = 0;
  unsigned keyParts_ = 1;
  bool isFirst_ = true;  // of its line, but for blanks, and outside of brackets
};

}  // namespace

TomlAssertion::~TomlAssertion() = default;

void throwTomlAssertion(const char* expression) { throw TomlAssertion(expression); }

std::string readTomlText(const std::string& path) {
  const auto fail = [&](const std::string& why) {
    throw FileError(fmt::format("{}: {}", path, why), true);
  };
  // (Without O_NONBLOCK the opening of a pipe waits for a writer.)
  const Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) fail(errno == ENOENT ? "there is no such file" : reasonOf(errno));
  struct stat status;
  if (::fstat(file.get(), &status) != 0) fail(reasonOf(errno));
  if (S_ISDIR(status.st_mode)) fail("is a directory");
  if (!S_ISREG(status.st_mode)) fail("is no regular file");
  std::string text;
  char piece[1 << 16];
  while (true) {
    const ssize_t count = ::read(file.get(), piece, sizeof piece);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail(reasonOf(errno));
    if (count == 0) return text;
    text.append(piece, static_cast<size_t>(count));
    if (text.size() > longestFile) fail(fmt::format("has more than {} bytes", longestFile));
  }
}

void checkTomlText(const std::string& path, std::string_view text) { Check(path, text).run(); }

}  // namespace Board
