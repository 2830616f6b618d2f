#pragma once

// How a chip has its registers on the bus, where the transports of the library do not fit: what a
// user says about it (settings), and what a kind of transport makes of that. Plain values; any
// thread.

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "KoruRegFile/RegisterFile.h"
#include "board/Export.h"

namespace Board {

// By key, as in "address_bits" and "16".
using FormatSettings = std::map<std::string, std::string, std::less<>>;

// A setting that cannot be; what() begins with its key.
class BOARD_EXPORT FormatError : public std::invalid_argument {
 public:
  FormatError(std::string key, const std::string& why)
      : std::invalid_argument(key + " " + why), key_(std::move(key)) {}
  ~FormatError() override;
  const std::string& key() const { return key_; }

 private:
  std::string key_;
};

// Takes settings apart. Each function gives `byDefault` for a key that is not there, and throws
// FormatError that says what may stand there.
class BOARD_EXPORT SettingsReader {
 public:
  // Throws for a key that is none of `known`.
  SettingsReader(const FormatSettings& settings, std::initializer_list<std::string_view> known);

  bool has(std::string_view key) const { return settings_.contains(key); }
  uint32_t number(std::string_view key, uint32_t least, uint32_t most, uint32_t byDefault) const;
  unsigned oneOf(std::string_view key, std::initializer_list<unsigned> allowed,
                 unsigned byDefault) const;
  bool flag(std::string_view key, bool byDefault = false) const;
  // The position in `words`.
  size_t word(std::string_view key, std::initializer_list<std::string_view> words,
              size_t byDefault = 0) const;

 private:
  const std::string* find(std::string_view key) const;

  const FormatSettings& settings_;
};

class BOARD_EXPORT Format {
 public:
  virtual ~Format();
  // Why this format can never carry the register as it is; nothing when it can.
  virtual std::optional<std::string> whyNot(const KoruRegFile::Register& reg) const = 0;
  // Why it can read none; nothing when it can.
  virtual std::optional<std::string> whyNotRead() const { return std::nullopt; }
  // The width that every register has; 0 when each has its own.
  virtual unsigned valueBits() const = 0;
};

// What goes over the bus has the register's width, in whole bytes, so that nothing beside it is
// touched: 12 bits fit a format of 16, 8 bits do not. `valueBits` as above.
BOARD_EXPORT std::optional<std::string> whyNotWidth(const KoruRegFile::Register& reg,
                                                    unsigned valueBits);

// As many bytes as the register takes.
constexpr unsigned bytesOf(unsigned bits) { return (bits + 7) / 8; }

}  // namespace Board
