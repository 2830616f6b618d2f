#pragma once

// How a register map is read: its lines, and the fields of one line. Internal to the library and
// shared by RegisterFile, which refuses a bad map, and checkRegisterFile(), which lists what is
// bad, so that both mean the same thing. A reader belongs to one thread.

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <string_view>

#include "KoruRegFile/RegisterFile.h"

namespace KoruRegFile {

inline constexpr std::string_view registerFileHeader = "number,name,type,writeable,width";
inline constexpr uint32_t registerFieldCount = 5;
inline constexpr uint32_t maxRegisterWidth = 32;

enum class RecordFault : uint8_t {
  // Refused.
  lineTooLong,
  badNumber,
  badWidth,
  unsupportedWidth,
  // Traced.
  unknownType,
  extraFields,
  missingFields,
  // Accepted in silence.
  addressWraps,
  emptyName,
  nulInName,
  oddWriteable,
};

struct RecordProblem {
  RecordFault fault;
  size_t column;           // from 1, where the field begins
  std::string_view field;  // the field's text
  uint32_t fieldCount;     // how many complete fields came before it
};

// Is told what is wrong with a record, field by field. Throws to end the parsing.
class RecordProblemSink {
 public:
  virtual void problem(const RecordProblem& problem) = 0;

 protected:
  ~RecordProblemSink() = default;
};

// The exception text of a fault that is refused.
const char* refusalText(RecordFault fault);

// Parses one line. Fields that could not be used are left at zero in the result.
Register parseRecord(std::string_view line, uint8_t addrBlockSize, RecordProblemSink& sink);

// Says that a map lacks a register. A name with a NUL byte, which no transport could be told, is
// shown whole.
[[noreturn]] void throwNoRegister(std::string_view name);

// The lines of a map, without their line ends.
class RecordLines {
 public:
  // Throws RegisterFileError when the file is not a regular file or a pipe, or cannot be opened,
  // and std::logic_error for a null pointer.
  explicit RecordLines(const char* path);
  explicit RecordLines(std::istream& in);
  ~RecordLines();

  // False at the end. `line` is valid until the next call. Throws RegisterFileError on a read
  // error.
  bool next(std::string_view& line);
  // The number of the line that next() gave last; 0 before the first.
  size_t number() const { return number_; }

 private:
  struct File;

  std::unique_ptr<File> file_;
  std::istream* in_;
  std::string buffer_;
  size_t number_ = 0;
};

}  // namespace KoruRegFile
