#define XXH_INLINE_ALL
#include "board/chips/internal/HistoryLayout.h"

#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Orb/Errno.h"

namespace Board {

namespace {

constexpr size_t slotsAtOnce = 512;

uint64_t checkOf(const HistoryHeader& header) {
  return XXH3_64bits(&header, offsetof(HistoryHeader, check));
}

}  // namespace

HistoryHeader newHistoryHeader(uint64_t capacity, uint64_t id) {
  HistoryHeader header = {};
  std::memcpy(header.magic, historyMagic, sizeof historyMagic);
  header.byteOrder = historyByteOrder;
  header.version = historyVersion;
  header.headerSize = sizeof(HistoryHeader);
  header.slotSize = sizeof(HistorySlot);
  header.capacity = capacity;
  header.id = id;
  header.check = checkOf(header);
  return header;
}

const char* whyNoHistory(const HistoryHeader& header) {
  if (std::memcmp(header.magic, historyMagic, sizeof historyMagic) != 0) return "is no history";
  if (header.byteOrder != historyByteOrder) return "is of a machine with another byte order";
  if (header.version != historyVersion) return "is of another version";
  const bool isWhole = header.check == checkOf(header) && header.slotSize == sizeof(HistorySlot) &&
                       header.headerSize == sizeof(HistoryHeader);
  if (!isWhole || header.capacity == 0 || header.capacity > longestHistory) return "is damaged";
  return "";
}

uint64_t checkOf(const HistorySlot& slot, uint64_t id) {
  return XXH3_64bits_withSeed(&slot.sequence, sizeof slot - offsetof(HistorySlot, sequence), id);
}

HistoryRecord recordOf(const HistorySlot& slot) {
  HistoryRecord record;
  record.sequence = slot.sequence;
  record.wallTime = slot.wallTime;
  record.monotonicTime = slot.monotonicTime;
  record.hasActor = (slot.flags & hasActorFlag) != 0;
  record.actor.uid = slot.uid;
  record.actor.pid = slot.pid;
  record.actor.process.assign(slot.process, ::strnlen(slot.process, sizeof slot.process));
  record.why = static_cast<WrittenFor>(slot.why);
  record.hasField = (slot.flags & hasFieldFlag) != 0;
  record.was = slot.was;
  record.value = slot.value;
  record.hasRegister = (slot.flags & hasRegisterFlag) != 0;
  record.sent = slot.sent;
  record.end = static_cast<WriteEnd>(slot.end);
  record.took = slot.took;
  record.error = slot.error;
  record.isCut = (slot.flags & cutFlag) != 0;
  size_t place = 0;
  const auto next = [&](HistoryText which) {
    const size_t begin = std::min(place, sizeof slot.text);
    const size_t size = std::min<size_t>(slot.sizes[which], sizeof slot.text - begin);
    place = begin + size;
    return std::string(slot.text + begin, size);
  };
  record.reg = next(registerText);
  record.field = next(fieldText);
  record.hardware = next(hardwareText);
  record.reason = next(reasonText);
  return record;
}

bool readAt(int file, void* data, size_t size, uint64_t place, const std::string& path) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = ::pread(file, static_cast<char*>(data) + done, size - done,
                                  static_cast<off_t>(place + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Orb::throwErrno("cannot read {}", path);
    if (count == 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

std::vector<HistorySlot> slotsOf(int file, const HistoryHeader& header, const std::string& path) {
  struct stat status;
  if (::fstat(file, &status) != 0) Orb::throwErrno("cannot look at {}", path);
  const auto size = static_cast<uint64_t>(status.st_size);
  const uint64_t held =
      size < sizeof(HistoryHeader) ? 0 : (size - sizeof(HistoryHeader)) / sizeof(HistorySlot);
  const uint64_t count = std::min(header.capacity, held);
  std::vector<HistorySlot> sound;
  std::vector<HistorySlot> piece(static_cast<size_t>(std::min<uint64_t>(count, slotsAtOnce)));
  for (uint64_t first = 0; first < count; first += piece.size()) {
    piece.resize(static_cast<size_t>(std::min<uint64_t>(piece.size(), count - first)));
    const uint64_t place = slotPlace(first + 1, header.capacity);
    // (Somebody may cut the file short meanwhile.)
    if (!readAt(file, piece.data(), piece.size() * sizeof(HistorySlot), place, path)) break;
    std::copy_if(piece.begin(), piece.end(), std::back_inserter(sound), [&](const auto& slot) {
      return isSound(slot, header.id) &&
             slotPlace(slot.sequence, header.capacity) ==
                 place + static_cast<uint64_t>(&slot - piece.data()) * sizeof(HistorySlot);
    });
  }
  return sound;
}

}  // namespace Board
