#pragma once

// What went over the buses of chips, as a text: a line for each access, in the order in which the
// bus saw them (docs/Record.md). Written by `korureg record`, answered from by the transport
// `replay`. Plain values; any thread.

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/TransportError.h"
#include "board/Export.h"

namespace Board {

// A recording that cannot be used; what() says where and why.
class BOARD_EXPORT RecordingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~RecordingError() override;
};

// One line of a recording.
struct Recorded {
  enum class Kind {
    holds,    // what a register held before the first access
    unasked,  // a register that the agent reads of its own accord
    read,
    write,
    gap,  // accesses that nobody knows
    end,  // nothing is missing behind the last one
  };
  struct Times {
    std::chrono::nanoseconds at;  // since the recording began
    std::chrono::nanoseconds took;
  };

  Kind kind = Kind::end;
  std::string chip = {};
  std::string reg = {};
  uint32_t value = 0;    // of a read that failed: none
  uint64_t missing = 0;  // of a gap
  std::optional<KoruRegFile::TransportFailure> failure = std::nullopt;
  std::optional<Times> times = std::nullopt;
  size_t line = 0;  // in the file, from 1 on
};

inline constexpr const char* recordingHeader = "koru-recording 1";
// Of a line; whoever writes a longer reason has it cut.
inline constexpr size_t longestRecord = 4096;
inline constexpr size_t longestRecording = 1 << 28;

// The line, without its end.
BOARD_EXPORT std::string recordText(const Recorded& record);
// "read CONFIGURATION", "write CONFIGURATION 0x1197"
BOARD_EXPORT std::string accessText(bool isWrite, std::string_view reg, uint32_t value);

// All lines of a recording that say something. Throws RecordingError for a text that is none, or
// not whole; `path` is what it is called there.
BOARD_EXPORT std::vector<Recorded> recordsIn(std::string_view text, const std::string& path);
// The same of a file, which is opened and read once. Throws RecordingError when that cannot be.
BOARD_EXPORT std::vector<Recorded> readRecording(const std::string& path);

}  // namespace Board
