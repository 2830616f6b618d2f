#pragma once

// How a history lies in its file (docs/History.md): a header, and then slots, of which the record
// with the sequence number s takes number (s - 1) % capacity. Numbers are in the byte order of the
// machine.
//
//  1. A slot is written by one call, and holds nothing unless its check is right: what a killed
//     writer leaves behind of one is no record.
//  2. Checks depend on the id, which is drawn for each file: what another file held is no record.
//  3. A record is never moved; the next one takes the place of the oldest.

#include <cstddef>
#include <cstdint>

#include "board/chips/History.h"

namespace Board {

struct HistoryHeader {
  char magic[8];
  uint32_t byteOrder;
  uint32_t version;
  uint32_t headerSize;
  uint32_t slotSize;
  uint64_t capacity;
  uint64_t id;
  uint8_t reserved[16];
  uint64_t check;  // of what is in front of it
};
static_assert(sizeof(HistoryHeader) == 64 && offsetof(HistoryHeader, check) == 56);

inline constexpr char historyMagic[8] = {'K', 'o', 'r', 'u', 'H', 'i', 's', 't'};
inline constexpr uint32_t historyByteOrder = 0x01020304;
inline constexpr uint32_t historyVersion = 1;

struct HistorySlot {
  uint64_t check;  // of what is behind it
  uint64_t sequence;
  int64_t wallTime;
  int64_t monotonicTime;
  uint64_t took;
  uint32_t uid;
  int32_t pid;
  uint32_t was;
  uint32_t value;
  uint32_t sent;
  int32_t error;
  uint8_t flags;
  uint8_t why;
  uint8_t end;
  uint8_t reserved;
  uint8_t sizes[4];  // of what stands in `text` one behind the other: HistoryText
  char process[16];  // ends with a NUL unless it is as long
  char text[104];
};
static_assert(sizeof(HistorySlot) == 192 && offsetof(HistorySlot, text) == 88);

enum HistoryFlag : uint8_t { hasActorFlag = 1, hasFieldFlag = 2, hasRegisterFlag = 4, cutFlag = 8 };
enum HistoryText : uint8_t { registerText, fieldText, hardwareText, reasonText };

constexpr uint64_t slotPlace(uint64_t sequence, uint64_t capacity) {
  return sizeof(HistoryHeader) + (sequence - 1) % capacity * sizeof(HistorySlot);
}

HistoryHeader newHistoryHeader(uint64_t capacity, uint64_t id);
// Why it is none; empty when it is one.
const char* whyNoHistory(const HistoryHeader& header);
uint64_t checkOf(const HistorySlot& slot, uint64_t id);
inline bool isSound(const HistorySlot& slot, uint64_t id) {
  return slot.sequence != 0 && slot.check == checkOf(slot, id);
}
HistoryRecord recordOf(const HistorySlot& slot);

// All sound slots of a file, in the order of their places. Throws std::system_error.
std::vector<HistorySlot> slotsOf(int file, const HistoryHeader& header, const std::string& path);
// False when the file is too short.
bool readAt(int file, void* data, size_t size, uint64_t place, const std::string& path);

}  // namespace Board
