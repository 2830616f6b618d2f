#pragma once

// A chip that is not there: answers accesses from a recording of its bus (Recording.h), and says
// where a program departs from it. docs/Record.md tells what has to match. Used on the framework's
// thread.
//
// 1. Reads and writes come in the order of the recording, with the same register and value.
// 2. Before the first of them, each register that the recording says to hold a value may be given
//    that value, in any order and any number of times, until all have been or rule 1 has begun.
// 3. Registers that the agent reads of its own accord may be read at any time, and are left out of
//    the order: they are answered with the records that stand before what comes next, one after the
//    other, then with what was known last.
// 4. After the first departure nothing is answered any more.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/TransportError.h"
#include "Orb/Counter.h"
#include "board/Export.h"
#include "board/devices/Recording.h"

namespace Board {

// The program does something else than what was recorded; what() tells both, and where.
class BOARD_EXPORT ReplayDeparture : public KoruRegFile::TransportError {
 public:
  // `record` counts the accesses of the chip, from 1 on.
  ReplayDeparture(const std::string& text, uint64_t record)
      : TransportError(text, 0), record_(record) {}
  ~ReplayDeparture() override;
  uint64_t record() const { return record_; }

 private:
  uint64_t record_;
};

// What a chip's part of a recording is.
struct ReplaySource {
  std::string path;
  std::string chip;         // in the recording; empty: the one named `name`, or else the only one
  std::string name;         // of the chip that is replayed
  std::string registerMap;  // the path of its map; empty: `registers`
  Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile> registers = nullptr;
};

class BOARD_EXPORT ReplayTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  static constexpr uint8_t addrBlockSize = 4;

  // Throws RecordingError, and what reading the map throws.
  explicit ReplayTransport(const ReplaySource& source);
  ~ReplayTransport() override;

  // What was recorded, failures included; or throw ReplayDeparture.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  // A read of rule 3, and how many records of rule 1 stand before it.
  struct Floating {
    const Recorded* record;
    size_t place;
  };
  struct Unasked {
    std::vector<Floating> reads;
    size_t next = 0;
  };

  void take(const Recorded& record);
  const Recorded& expect(bool isWrite, std::string_view reg, uint32_t value);
  void passUnasked();
  uint32_t readUnasked(Unasked& unasked, const std::string& reg);
  [[noreturn]] void depart(const std::string& expected, const std::string& came, size_t line);

  const std::string path_;
  const std::vector<Recorded> records_;
  std::vector<const Recorded*> order_;  // what rule 1 goes by
  size_t next_ = 0;                     // of it
  std::map<std::string, uint32_t, std::less<>> held_;
  std::set<std::string, std::less<>> unwritten_;  // of those that are held; rule 2
  std::map<std::string, Unasked, std::less<>> unasked_;
  std::map<std::string, const Recorded*, std::less<>> known_;  // of unasked registers
  std::unique_ptr<const ReplayDeparture> departure_;
  Orb::Counter recorded_;
  Orb::Counter replayed_;
};

}  // namespace Board
