#pragma once

// Transactions on a simulated I2C bus: bytes to chips, bytes from chips. Whatever a program asks
// for comes down to these, so that a chip answers SMBus calls and plain messages alike. Under the
// board's lock.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "simulator/model/Image.h"
#include "simulator/model/Store.h"

namespace Simulator {

// The check byte of SMBus, x^8 + x^2 + x + 1, with another byte behind.
uint8_t pecOf(uint8_t before, uint8_t byte);

// A chip in the course of a transaction, which sees every byte from a start to the stop.
class I2cChip {
 public:
  I2cChip(Image& image, size_t chip) : store_(image, chip) {}

  void start(bool isRead);  // with the address byte; again for a repeated start
  bool take(uint8_t byte);  // false: the chip does not acknowledge it
  uint8_t give();
  void stop();

 private:
  void endPhase();
  bool takeValue(uint8_t byte);
  bool takeCheck(bool isRight);
  uint8_t next();

  Store store_;
  uint8_t check_ = 0;  // of all bytes so far
  bool isReading_ = false;
  unsigned addressed_ = 0;  // bytes of the address that have come
  uint32_t address_ = 0;
  unsigned at_ = 0;  // bytes of the value that have gone
  uint32_t value_ = 0;
  bool isWhole_ = false;  // with PEC: a value waits for the check byte, or the end
  bool isOver_ = false;   // with PEC: the check byte has gone
};

struct Message {
  unsigned address = 0;
  bool isRead = false;
  std::span<uint8_t> bytes;
};

struct Outcome {
  int error = 0;         // an errno; 0 for success
  bool isShort = false;  // fewer bytes than were asked for, if there can be
};

// Carries out the messages with a repeated start between them, and appends what was on the wire to
// the line: " 48w 01 60" for each message, and how it failed.
Outcome transfer(Image& image, size_t node, std::span<const Message> messages, std::string& line);

}  // namespace Simulator
