#pragma once

// What happened to a chip: a ring of records in a file of the state directory, written by the agent
// and read by anybody who may read the tables, with or without an agent (docs/History.md).

#include <cstdint>
#include <string>
#include <vector>

#include "Orb/Descriptor.h"
#include "board/Export.h"

namespace Board {

// Who has the agent do something: a process at the other end of its socket.
struct Actor {
  uint32_t uid = 0;
  int32_t pid = 0;
  std::string process;  // its name, as the kernel cuts it
};

// What a chip was written for.
enum class WrittenFor : uint8_t {
  request,  // a client's
  program,  // the agent's own, which has changed a field
  bringUp,
  rewrite,  // of all registers, or some, asked for or after a failure
  drift,    // a register did not hold what was written
  reset,    // the chip was found to be reset
};

enum class WriteEnd : uint8_t {
  none,    // no register was written: it holds that already, or the chip is not up
  done,    // the transport has carried it out
  posted,  // it has taken it; when it fails later, another record tells that
  failed,
};

// "request", "bring-up", ...; "none", ...; "?" for those of another version.
BOARD_EXPORT const char* textOf(WrittenFor why);
BOARD_EXPORT const char* textOf(WriteEnd end);

// A change of a field, a write of a register, or a write of a register that changed a field.
struct HistoryRecord {
  uint64_t sequence = 0;  // from 1 on; numbers that are missing are records that could not be kept
  int64_t wallTime = 0;   // nanoseconds since 1970
  int64_t monotonicTime = 0;  // nanoseconds since the machine was started
  bool hasActor = false;      // otherwise the agent did it by itself
  Actor actor;
  WrittenFor why = WrittenFor::program;
  bool hasField = false;
  std::string reg;  // both logical
  std::string field;
  uint32_t was = 0;
  uint32_t value = 0;
  bool hasRegister = false;
  std::string hardware;  // the register
  uint32_t sent = 0;     // what was written to it
  WriteEnd end = WriteEnd::none;
  uint64_t took = 0;   // nanoseconds that the write went on
  std::string reason;  // of a failure
  int error = 0;       // its errno, or 0
  bool isCut = false;  // names or the reason had no room
};

inline constexpr uint64_t usualHistory = 10'000;     // records of a chip
inline constexpr uint64_t longestHistory = 1 << 24;  // 3 GB

BOARD_EXPORT std::string historyPath(const std::string& stateDirectory, const std::string& chip);
// Whose histories are there, by name.
BOARD_EXPORT std::vector<std::string> chipsWithHistory(const std::string& stateDirectory);

class BOARD_EXPORT HistoryReader {
 public:
  // Throws std::system_error when it cannot be opened, and std::runtime_error for what is no
  // history.
  explicit HistoryReader(std::string path);

  // Those behind that sequence number, oldest first. Records that are only half there are left out.
  std::vector<HistoryRecord> after(uint64_t sequence) const;
  // Another file has taken its place, or none.
  bool isReplaced() const;

 private:
  std::string path_;
  Orb::Descriptor file_;
  uint64_t capacity_ = 0;
  uint64_t id_ = 0;
};

}  // namespace Board
