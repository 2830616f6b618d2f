#pragma once

// The layout of a shared table file, byte by byte; docs/TableFormat.md tells the same in prose. All
// numbers are in the byte order of the machine that wrote the file.
//
//     0      TableHeader                    one page
//     4096   ring                           ringCount entries of 8 bytes
//     then   sequence numbers               slotCount numbers of 4 bytes
//     then   slots                          slotCount slots of 16 bytes
//
// Sequence numbers are kept apart, since a look-up has no use for them: the less it touches, the
// faster it is. They come first, so that a file that was cut short has lost slots, which tell.
//
// Internal to Shoal.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Shoal {

inline constexpr char tableMagic[8] = {'K', 'o', 'r', 'u', 'T', 'a', 'b', 'l'};
inline constexpr uint32_t tableByteOrder = 0x01020304;
inline constexpr uint32_t foreignByteOrder = 0x04030201;
inline constexpr uint32_t tableVersion = 1;
inline constexpr uint32_t tableHashId = 2;
inline constexpr size_t tableHeaderSize = 4096;
inline constexpr uint32_t tableRingCount = 4096;
inline constexpr size_t typeNameSize = 64;

// Atomics live in files and are shared by processes, so they must be plain memory.
static_assert(std::atomic<uint64_t>::is_always_lock_free && sizeof(std::atomic<uint64_t>) == 8);
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);

// What never changes in a file; guarded by `check`, a hash of all bytes before it.
struct TableIdentity {
  char magic[8];
  uint32_t byteOrder;
  uint32_t version;
  uint32_t headerSize;
  uint32_t slotSize;
  uint32_t slotCount;  // a power of two
  uint32_t ringCount;  // a power of two
  uint32_t capacity;   // entries, deleted ones included; at most half of slotCount
  uint32_t hashId;
  uint64_t generation;  // from 1, one more with each growth
  uint64_t uuid[2];
  uint8_t bootId[16];           // of the system start in which the file was made
  char typeName[typeNameSize];  // padded with NULs
  uint64_t check;
};
static_assert(offsetof(TableIdentity, slotCount) == 24);
static_assert(offsetof(TableIdentity, generation) == 40);
static_assert(offsetof(TableIdentity, uuid) == 48);
static_assert(offsetof(TableIdentity, bootId) == 64);
static_assert(offsetof(TableIdentity, typeName) == 80);
static_assert(offsetof(TableIdentity, check) == 144);
static_assert(sizeof(TableIdentity) == 152);

struct TableHeader {
  TableIdentity identity;
  uint8_t reserved[104];
  std::atomic<uint64_t> head;        // the sequence number of the latest change; 0 at first
  std::atomic<uint32_t> superseded;  // 1 when a newer generation has taken this file's place
};
static_assert(offsetof(TableHeader, head) == 256);
static_assert(offsetof(TableHeader, superseded) == 264);
static_assert(sizeof(TableHeader) <= tableHeaderSize);

// 0 is no state, so that a slot of zeroes, as a file that was cut short reads, is damage.
enum class SlotState : uint32_t { invalid = 0, empty = 1, present = 2, deleted = 3 };

struct Slot {
  std::atomic<uint64_t> key;   // written once, before the slot is first published
  std::atomic<uint64_t> word;  // value (32 bits), state (2), check (30): published as one
};
static_assert(sizeof(Slot) == 16);
static_assert(offsetof(Slot, word) == 8);
// Slots go in lines of this many, a cache line each, which searches visit whole.
inline constexpr uint32_t lineSlots = 4;
inline constexpr uint32_t fewestSlots = 16;

// The lower half of the sequence number of the change that was last written to a slot.
using SlotSequence = std::atomic<uint32_t>;

// Changes are counted in 64 bits. A slot's half of the number tells which of two is the later one
// as long as they are less than this many changes apart.
inline constexpr uint64_t sequenceHorizon = uint64_t{1} << 31;

// Whether a slot was changed after change number `cursor`. A slot that was not changed for longer
// than the horizon may pass for newer.
inline bool isNewer(uint32_t slotSequence, uint64_t cursor) {
  const uint32_t distance = slotSequence - static_cast<uint32_t>(cursor);
  return distance != 0 && distance < sequenceHorizon;
}

// Where the parts of a file begin, and where it ends.
constexpr size_t sequencesOffset(uint32_t ringCount) {
  return tableHeaderSize + ringCount * sizeof(uint64_t);
}
constexpr size_t slotsOffset(uint32_t ringCount, uint32_t slotCount) {
  return sequencesOffset(ringCount) + slotCount * sizeof(SlotSequence);
}
constexpr size_t tableFileSize(uint32_t ringCount, uint32_t slotCount) {
  return slotsOffset(ringCount, slotCount) + slotCount * sizeof(Slot);
}

inline constexpr unsigned stateShift = 32;
inline constexpr unsigned checkShift = 34;

inline uint32_t wordValue(uint64_t word) { return static_cast<uint32_t>(word); }
inline SlotState wordState(uint64_t word) { return static_cast<SlotState>(word >> stateShift & 3); }
// A word without its check.
inline uint64_t wordContents(uint64_t word) { return word & ((uint64_t{1} << checkShift) - 1); }
inline uint64_t packContents(uint32_t value, SlotState state) {
  return value | uint64_t{static_cast<uint32_t>(state)} << stateShift;
}

// A ring entry says which slot a change went to: slot index, and the low half of the sequence
// number by which a reader recognises that the entry is still the one it is looking for.
inline uint64_t packRingEntry(uint32_t slot, uint64_t sequence) { return slot | sequence << 32; }
inline uint32_t ringEntrySlot(uint64_t entry) { return static_cast<uint32_t>(entry); }
inline bool ringEntryIsOf(uint64_t entry, uint64_t sequence) {
  return entry >> 32 == (sequence & 0xFFFFFFFF);
}

}  // namespace Shoal
