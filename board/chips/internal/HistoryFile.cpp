#include "board/chips/internal/HistoryFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Orb/Errno.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "board/chips/StateFiles.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

// What is left of names that together have no room.
constexpr size_t longestCut[] = {30, 37, 37};

// Records that are written together.
constexpr uint64_t mostWaiting = 256;

int64_t timeOf(clockid_t clock) {
  timespec now = {};
  ::clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

uint64_t drawnId() {
  uint64_t id = 0;
  if (::getrandom(&id, sizeof id, 0) != sizeof id) Orb::throwErrno("cannot draw random numbers");
  return id;
}

// Names first; the reason takes what is left.
void putTexts(HistorySlot& slot, const HistoryEntry& entry) {
  std::string_view texts[] = {entry.reg, entry.field, entry.hardware, entry.reason};
  if (texts[0].size() + texts[1].size() + texts[2].size() > sizeof slot.text) {
    slot.flags |= cutFlag;
    for (size_t i = 0; i < std::size(longestCut); ++i) texts[i] = texts[i].substr(0, longestCut[i]);
  }
  size_t place = 0;
  for (size_t i = 0; i < std::size(texts); ++i) {
    const size_t size = texts[i].copy(slot.text + place, sizeof slot.text - place);
    if (size < texts[i].size()) slot.flags |= cutFlag;
    slot.sizes[i] = static_cast<uint8_t>(size);
    place += size;
  }
}

HistorySlot slotOf(const HistoryEntry& entry) {
  HistorySlot slot = {};
  slot.wallTime = timeOf(CLOCK_REALTIME);
  slot.monotonicTime = timeOf(CLOCK_MONOTONIC);
  slot.took = entry.took;
  if (entry.actor) {
    slot.flags |= hasActorFlag;
    slot.uid = entry.actor->uid;
    slot.pid = entry.actor->pid;
    entry.actor->process.copy(slot.process, sizeof slot.process);
  }
  slot.why = static_cast<uint8_t>(entry.why);
  slot.end = static_cast<uint8_t>(entry.end);
  if (entry.hasField) slot.flags |= hasFieldFlag;
  slot.was = entry.was;
  slot.value = entry.value;
  if (entry.hasRegister) slot.flags |= hasRegisterFlag;
  slot.sent = entry.sent;
  slot.error = entry.error;
  putTexts(slot, entry);
  return slot;
}

void writeWhole(const Orb::Descriptor& file, const void* data, size_t size, uint64_t place,
                const std::string& path) {
  ssize_t count = 0;
  do {
    count = ::pwrite(file.get(), data, size, static_cast<off_t>(place));
  } while (count < 0 && errno == EINTR);
  if (count < 0) Orb::throwErrno("cannot write {}", path);
  if (static_cast<size_t>(count) != size) {
    errno = ENOSPC;
    Orb::throwErrno("cannot write {}", path);
  }
}

// A file that is none of this user's, or no history.
class Foreign : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace

// What goes wrong is told once, until something has been written again.
template <class Step>
void HistoryFile::attempt(const Step& step) noexcept {
  try {
    step();
  } catch (const std::exception& e) {
    waiting_.clear();
    if (std::exchange(isTold_, true)) return;
    ORB_TRACE(trace, 0, "{}; the history of the chip is not kept", e.what());
  }
}

void HistoryFile::append(const HistoryEntry& entry) noexcept {
  hold(entry);
  flush();
}

void HistoryFile::hold(const HistoryEntry& entry) noexcept {
  if (capacity_ == 0 || isClosed_ || (!file_ && !again_.isDue())) return;
  attempt([&] {
    if (!file_) open();
    if (waiting_.size() == std::min(capacity_, mostWaiting)) writeWaiting();
    HistorySlot& slot = waiting_.emplace_back(slotOf(entry));
    slot.sequence = ++sequence_;
    slot.check = checkOf(slot, id_);
  });
}

void HistoryFile::flush() noexcept {
  if (!waiting_.empty()) attempt([&] { writeWaiting(); });
}

// Those up to the end of the ring, and those at its begin.
void HistoryFile::writeWaiting() {
  for (size_t first = 0; first < waiting_.size();) {
    const uint64_t sequence = waiting_[first].sequence;
    const size_t count = std::min(waiting_.size() - first,
                                  static_cast<size_t>(capacity_ - (sequence - 1) % capacity_));
    writeWhole(file_, &waiting_[first], count * sizeof(HistorySlot), slotPlace(sequence, capacity_),
               path_);
    first += count;
  }
  waiting_.clear();
  isTold_ = false;
}

void HistoryFile::close() {
  flush();
  isClosed_ = true;
  file_.reset();
}

void HistoryFile::open() {
  makeOwnDirectory(path_.substr(0, path_.rfind('/')));
  try {
    if (openPresent()) return;
  } catch (const Foreign& e) {
    file_.reset();
    setAside(e.what());
  } catch (...) {
    file_.reset();
    throw;
  }
  begin({});
}

// False when there is none.
bool HistoryFile::openPresent() {
  try {
    file_ = openOwn(path_, O_RDWR);
  } catch (const std::system_error& e) {
    constexpr int foreign[] = {EISDIR, EACCES, EPERM, ENXIO};
    if (std::count(std::begin(foreign), std::end(foreign), e.code().value()) == 0) throw;
    throw Foreign(e.what());
  } catch (const std::runtime_error& e) {
    throw Foreign(e.what());
  }
  if (!file_) return false;
  HistoryHeader header = {};
  if (!readAt(file_.get(), &header, sizeof header, 0, path_)) {
    throw Foreign(path_ + " ends too early");
  }
  if (const std::string why = whyNoHistory(header); !why.empty()) {
    throw Foreign(fmt::format("{} {}", path_, why));
  }
  Shoal::setFileAccess(file_.get(), path_);
  if (header.capacity != capacity_) {
    resize(header);
    return true;
  }
  id_ = header.id;
  for (const HistorySlot& slot : slotsOf(file_.get(), header, path_)) {
    sequence_ = std::max(sequence_, slot.sequence);
  }
  return true;
}

// Another number of records: those that fit go along, in the place of older ones.
void HistoryFile::resize(const HistoryHeader& header) {
  std::vector<HistorySlot> slots = slotsOf(file_.get(), header, path_);
  std::sort(slots.begin(), slots.end(),
            [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
  begin(std::move(slots));
}

// Appears under its name when it is whole.
void HistoryFile::begin(std::vector<HistorySlot> slots) {
  const std::string next = path_ + ".next";
  removeFile(next);
  Orb::Descriptor file = openOwn(next, O_RDWR | O_CREAT | O_EXCL);
  Shoal::setFileAccess(file.get(), next);
  const HistoryHeader header = newHistoryHeader(capacity_, drawnId());
  writeWhole(file, &header, sizeof header, 0, next);
  for (HistorySlot& slot : slots) {
    slot.check = checkOf(slot, header.id);
    writeWhole(file, &slot, sizeof slot, slotPlace(slot.sequence, capacity_), next);
  }
  if (::rename(next.c_str(), path_.c_str()) != 0) Orb::throwErrno("cannot put in place {}", path_);
  file_ = std::move(file);
  id_ = header.id;
  if (!slots.empty()) sequence_ = slots.back().sequence;
}

void HistoryFile::setAside(const std::string& why) {
  ORB_TRACE(trace, 0, "{}; set aside, and the history begins anew", why);
  if (std::rename(path_.c_str(), (path_ + ".damaged").c_str()) != 0) {
    Orb::throwErrno("cannot set {} aside", path_);
  }
}

}  // namespace Board
