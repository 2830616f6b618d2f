#pragma once

// A simulated board as it lies in a file that all its programs map: what the board file says
// (rows), and behind that what changes (states, values, memory). No pointers and no allocation, so
// that the preloaded library can use it in any program. Whoever looks at it holds the board's lock
// (LockedState.h).
//
//     Header
//     NodeRow[] ChipRow[] RegisterRow[] FaultRow[]       guarded by Header::check
//     NodeState[] ChipState[] value[] (one a register), count[] (one a fault), memory bytes

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Simulator {

struct Header {
  char magic[8];
  uint32_t size;  // of the file
  uint32_t nodes;
  uint32_t chips;
  uint32_t registers;
  uint32_t faults;
  uint32_t memory;     // bytes
  uint64_t check;      // of the six numbers above and of all rows
  uint32_t lostLines;  // of the ledger; may change
  uint32_t unused;
};

enum class NodeKind : uint32_t { i2c, spi };

struct NodeRow {
  char path[104];
  NodeKind kind;
  uint32_t takesMessages;  // I2C_RDWR, read() and write()
};

enum class Increment : uint32_t { never, always, flagged };
enum class Answer : uint32_t { same, next };

struct ChipRow {
  char name[56];
  uint32_t node;
  uint32_t address;                   // on an I2C bus
  uint32_t firstRegister, registers;  // by rising address
  uint32_t firstFault, faults;
  uint32_t memoryAt, memory;  // bytes; a chip has registers or memory
  uint32_t isVolatile;        // forgets its memory without power
  uint32_t addressBytes, addressLowFirst, addressMask, addressStep;
  uint32_t valueBytes, valueLowFirst;
  Increment increment;
  uint32_t incrementFlags;  // of the address, outside the mask
  uint32_t pec, driver;
  // SPI
  uint32_t mode;  // 4: any
  uint32_t commandBytes, dummyBytes;
  uint32_t hasRead, readCommand, hasWrite, writeCommand;
  Answer answer;
};

enum class Access : uint32_t { readWrite, readOnly, writeOnly };

struct RegisterRow {
  uint32_t at, bytes, mask;
  uint32_t reset;
  Access access;
  uint32_t clears, writeOneToClear, readToClear;
};

enum class Direction : uint32_t { any, read, write };

struct FaultRow {
  uint32_t hasRegister, reg;
  Direction direction;
  uint32_t from, count;  // of those that fit, by their number; a count of 0 has no end
  uint32_t error;        // 0: a short message
};

struct NodeState {  // of an SPI device, as programs have set it
  uint32_t mode, bits, speed;
};

struct ChipState {
  uint32_t pointer;  // the address that the next access is for
  uint32_t unplugged;
  uint32_t next, nextBytes;  // what the next SPI message answers
};

struct Image {
  Header* header = nullptr;
  std::span<NodeRow> nodes;
  std::span<ChipRow> chips;
  std::span<RegisterRow> registers;
  std::span<FaultRow> faults;
  std::span<NodeState> nodeStates;
  std::span<ChipState> chipStates;
  std::span<uint32_t> values;
  std::span<uint32_t> faultCounts;
  std::span<uint8_t> memory;

  // The index of the row, -1 for none.
  int nodeOf(std::string_view path) const;
  int chipNamed(std::string_view name) const;
  int chipAt(size_t node, uint32_t address) const;
};

constexpr char imageMagic[8] = {'k', 'o', 'r', 'u', 's', 'i', 'm', '1'};
constexpr uint32_t mostMemory = 1 << 26;  // of a board

size_t sizeOf(const Header& header);
uint64_t checkOf(const Image& image);

// The parts of bytes whose header has its numbers. Aligned as the header is.
Image partsOf(std::span<uint8_t> bytes);

// Why the bytes are no board that can be used; null when they are.
const char* whyUnsound(std::span<uint8_t> bytes);

// Everything as it is when the power comes for the first time; memory is erased.
void powerOn(Image& image);

}  // namespace Simulator
