#pragma once

// Registers of a chip with a format of its own on an SPI bus. Accesses with an outcome are queued
// and made from the event loop, one message a turn, reads and writes in their order; plain ones are
// made at once, as long as none is queued. A queued one that finds the bus busy is tried again.
// Destroying the transport drops the queue; its callbacks are then never called. Used on the loop's
// thread.

#include <deque>
#include <memory>
#include <string>

#include "Orb/LoopTask.h"
#include "board/devices/FormatTransport.h"
#include "board/devices/SpiFormat.h"

namespace Board {

class SpiDevice;

class BOARD_EXPORT SpiFormatTransport : public QueuedFormatTransport {
 public:
  // A register's number in the map is its address.
  static constexpr uint8_t addrBlockSize = 1;
  // Accesses; one that comes while so many wait is refused with ENOBUFS.
  static constexpr size_t mostQueued = 1024;

  // Throws std::system_error when the node cannot be opened or set up, and what reading the map
  // throws.
  SpiFormatTransport(const std::string& node, std::shared_ptr<const SpiFormat> format,
                     const MapSource& map);
  ~SpiFormatTransport() override;

  // Throw TransportError with what went wrong on the bus, EOPNOTSUPP for a chip that cannot be
  // read, EAGAIN while accesses are queued, which they would overtake, and what FormatTransport
  // refuses.
  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;
  // Throw ENOBUFS, EOPNOTSUPP and what FormatTransport refuses; a failed access is told to the
  // callback.
  void regReadWithOutcome(const char* regName, KoruRegFile::AccessCallback callback) override;
  void regWriteWithOutcome(const char* regName, uint32_t value,
                           KoruRegFile::AccessCallback callback) override;

 private:
  struct Access {
    Orb::String regName;
    bool isRead;
    uint32_t width;
    uint32_t value;  // of a write
    SpiFormat::Message message;
    KoruRegFile::AccessCallback callback;
  };

  Access readOf(const char* regName) const;
  Access writeOf(const char* regName, uint32_t value) const;
  void queue(Access access, KoruRegFile::AccessCallback callback);
  void requireEmptyQueue() const;
  int carryOut(const Access& access, uint32_t& value) const;
  std::string failureOf(const Access& access, int error) const;
  void serve();

  const std::string node_;
  const std::shared_ptr<const SpiFormat> format_;
  const std::unique_ptr<const SpiDevice> device_;
  std::deque<Access> queue_;
  int tries_ = 0;  // of the one in front
  Orb::LoopTask task_;
};

}  // namespace Board
