#pragma once

// Simulated I2C and SPI buses behind the real open(), ioctl(), flock() and close(): a program that
// links KoruBusSimulator, or is started with it in LD_PRELOAD, finds device nodes that are not
// there. Every call that reaches a simulated node stands in a ledger, so that a test can say
// "exactly these, in this order, and nothing else"; faults are scripted by the number of the call.
// What is not simulated goes to the system untouched. Calls may come from any thread.
//
// Ledger entries, numbers in hexadecimal, a failed call with "! errno" behind:
//     open /dev/i2c-7, close, slave 50, lock, lock shared, unlock
//     50 w 01 02 11     block write: the bytes on the wire, the command first
//     50 r 01 +4        block read: the command and how many bytes are asked for
//     50 W 12 2345      word write, 50 R 12 word read
//     spi 12 be ef      one SPI message; a pause behind a byte is "~" and its microseconds
// "dirty" behind an entry says that unused bytes of the caller's data were not zero.
//
// For a program of its own, the environment variable KORU_BUS_SIMULATOR names a directory with
//     buses      what is simulated: "i2c NODE CHIP BITS", "spi NODE", "fault CALL ERRNO COUNT"
//     ledger     every entry, appended at once
//     NODE       its last component: whoever locks this file has the node locked
//     registers  what the chips hold, "NODE CHIP REGISTER VALUE": read at the start, then kept
//     silent     as long as this file exists, no chip answers, and SPI devices have gone
// where the files but the first are made by the simulator, or by whoever steers it.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Orb/Export.h"

namespace Testing {

class ORB_EXPORT BusSimulator {
 public:
  // The simulator of this process: a test makes one for the time of its life, and nothing is
  // simulated without it. One at a time.
  BusSimulator();
  ~BusSimulator();
  BusSimulator(const BusSimulator&) = delete;
  BusSimulator& operator=(const BusSimulator&) = delete;

  // A bus and a chip on it, whose registers stand behind addresses of 8 bits (words) or of 16 bits
  // (32-bit values, in block transfers).
  void chipIs(const std::string& node, uint8_t chip, unsigned addressBits);
  void spiNodeIs(const std::string& node);

  // What the chip holds, by register address; a register never written reads as 0.
  std::map<uint32_t, uint32_t>& registers(const std::string& node, uint8_t chip);

  // All entries since the last time they were taken.
  std::vector<std::string> takeLedger();

  // Lets the calls fail that come as number `call` (from now, the first is 1) and the `count` - 1
  // after it. open(), ioctl() and taking a lock count as calls. With an error of 0, an SPI message
  // is a byte shorter than it was to be.
  void faultIs(size_t call, int error, size_t count = 1);
  // How many calls there have been since then.
  size_t calls() const;

  // Has every I2C transaction fail with EAGAIN, as on a bus that others keep busy.
  void busyIs(bool busy);
  // Has every block read bring a byte less than was asked for.
  void shortReadsAre(bool areShort);
  // As long as it is set, no chip acknowledges anything, and SPI devices have gone.
  void silentIs(bool silent);

  // How many descriptors of simulated nodes are open in this process, and whether a program that it
  // starts would have any of them.
  static size_t openDescriptors();
  static bool areInherited();
};

}  // namespace Testing
