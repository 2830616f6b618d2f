#pragma once

// Checks a register map for whoever writes one: where RegisterFile stops at the first line that it
// has to refuse, and drops duplicates in silence, this lists everything. Used by the command line
// and by tests of maps. Stateless; any thread.

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "KoruRegFile/Export.h"

namespace KoruRegFile {

struct RegisterFileProblem {
  enum class Severity : uint8_t {
    warning,  // the map can be read, but hardly as its writer meant it
    error     // RegisterFile refuses the map
  };

  size_t line;    // from 1; 0 for a file that cannot be opened
  size_t column;  // from 1, the byte where the field begins; 0 when no field is to blame
  Severity severity;
  std::string text;  // the reason and the offending text, printable and on one line
  // Of the entry that stands for those left out: how many, and how many of them are errors.
  size_t omitted = 0;
  size_t omittedErrors = 0;
};

// More problems than these are counted rather than listed.
inline constexpr size_t maxRegisterFileProblems = 1000;

// Every problem of a map, in the order of its lines; none when the map is sound. When there are
// more than maxRegisterFileProblems, one more entry says how many were left out and is an error if
// any of those was. Throws std::invalid_argument for a block size of 0, std::logic_error for a null
// path; a file that cannot be opened or read is a problem like any other.
KORU_EXPORT std::vector<RegisterFileProblem> checkRegisterFile(const char* path,
                                                               uint8_t addrBlockSize);
KORU_EXPORT std::vector<RegisterFileProblem> checkRegisterFile(std::istream& in,
                                                               uint8_t addrBlockSize);

}  // namespace KoruRegFile
