#pragma once

// Register maps: which registers a chip has, read from a CSV file.
//
// The file has the header "number,name,type,writeable,width" and one register a line; see Register
// for the fields. RegisterFile answers by name and by address and never changes after construction,
// so any thread may ask it and copy what it answers: Registers share the text of their names, which
// is counted atomically. Used by RegFileHelper, which owns one, and by the tools.

#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/Export.h"
#include "Orb/PositionIndex.h"
#include "Orb/String.h"

namespace KoruRegFile {

// The numbers are those of the platform's hardware register types.
enum class RegisterType : uint8_t {
  unknown = 0,
  reserved = 1,
  constant = 2,
  cfg = 3,
  sts = 4,
  counter = 5,
  ctl = 6
};

// Why a register map was refused; what() is the reason alone.
class KORU_EXPORT RegisterFileError : public std::runtime_error {
 public:
  explicit RegisterFileError(const std::string& message, size_t line = 0, size_t column = 0)
      : std::runtime_error(message), line_(line), column_(column) {}
  ~RegisterFileError() override;

  // The line, from 1, or 0 when unknown. For a read error the last line that could be read.
  size_t line() const noexcept { return line_; }
  // The byte of that line, from 1, where the offending field begins, or 0 when no field is to
  // blame.
  size_t column() const noexcept { return column_; }

 private:
  size_t line_;
  size_t column_;
};

// One register of a map. Members that a line did not reach are zero.
struct KORU_EXPORT Register {
  uint32_t address = 0;  // the line's number, scaled by the address block size
  uint32_t width = 0;    // in bits, at most 32
  RegisterType type = RegisterType::unknown;
  bool writeable = false;
  Orb::String name;

  Register() = default;

  // Parses one line without its line end. Throws RegisterFileError for a number or a width that
  // cannot be used. Traces an unknown type, missing and extra fields (category "Register", level 8)
  // and keeps what could be parsed. A block size of 0 is a fatal assertion.
  Register(std::string_view line, uint8_t addrBlockSize);

  // The type of a type word; RegisterType::unknown for any other text.
  static RegisterType regTypeFromString(std::string_view word);
  // The type word; "(unknown)" for a value that is none of the types.
  static const std::string& regTypeToString(RegisterType type);

  // "0x000040 control writeable 32": address, name, access and width.
  operator std::string() const;

  friend bool operator==(const Register&, const Register&) = default;
};

class KORU_EXPORT RegisterFile {
 public:
  // Reads a regular file or a pipe. Throws RegisterFileError when it cannot be opened or read and
  // when a line is refused; traces what Register traces. Of two registers with the same name, or
  // two names for the same address, the first one stays.
  RegisterFile(const char* csvPath, uint8_t addrBlockSize);
  // The same, from a stream that is open already.
  RegisterFile(std::istream& in, uint8_t addrBlockSize);

  RegisterFile(const RegisterFile&) = delete;
  RegisterFile& operator=(const RegisterFile&) = delete;

  // The register of that name. Throws std::runtime_error when there is none, std::logic_error for a
  // null pointer. Allocates nothing when it succeeds.
  const Register& findRegisterByName(std::string_view name) const;
  const Register& findRegisterByName(const char* name) const;

  // Whether there is a register of that name. Throws std::logic_error for a null pointer.
  bool hasRegName(std::string_view name) const { return find(name) != nullptr; }
  bool hasRegName(const char* name) const;

  // The name at an address. Throws std::runtime_error when there is none.
  std::string findRegNameByAddr(uint32_t address) const;
  // The same without a copy.
  const Orb::String& regNameAtAddr(uint32_t address) const;
  // Asks for the memory that this will touch (Orb/Fetch.h).
  void regFetch(uint32_t address) const;

  // Every register, in the order of the file.
  const std::vector<Register>& registers() const { return registers_; }

 private:
  void add(Register&& reg);
  // The register, or null.
  const Register* find(std::string_view name) const;
  const Register* find(uint32_t address) const;

  std::vector<Register> registers_;
  Orb::PositionIndex byName_;
  Orb::PositionIndex byAddress_;
  // Where to find the register of an address whose own line was dropped because of its name: the
  // one that has this name.
  boost::unordered_flat_map<uint32_t, uint32_t> otherAddresses_;
  // The register whose name was last asked for by address. That very text is what comes next, most
  // often, and leads back without a search.
  mutable std::atomic<const Register*> lastNamed_{nullptr};
};

}  // namespace KoruRegFile
