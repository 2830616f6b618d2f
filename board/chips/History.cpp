#include "board/chips/History.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"
#include "board/chips/internal/HistoryLayout.h"

namespace Board {

namespace {

constexpr const char* suffix = ".history";
// A writer that goes round the ring faster than it is read has nobody wait for ever.
constexpr int mostLooks = 4;

// Sequence numbers that are missing in the middle: they were overwritten while the file was read.
bool hasGap(const std::vector<HistorySlot>& sorted) {
  return !sorted.empty() && sorted.back().sequence - sorted.front().sequence + 1 != sorted.size();
}

}  // namespace

const char* textOf(WrittenFor why) {
  static constexpr const char* texts[] = {"request", "program", "bring-up",
                                          "rewrite", "drift",   "reset"};
  const auto place = static_cast<size_t>(why);
  return place < std::size(texts) ? texts[place] : "?";
}

const char* textOf(WriteEnd end) {
  static constexpr const char* texts[] = {"none", "done", "posted", "failed"};
  const auto place = static_cast<size_t>(end);
  return place < std::size(texts) ? texts[place] : "?";
}

std::string historyPath(const std::string& stateDirectory, const std::string& chip) {
  return stateDirectory + "/korud/" + chip + suffix;
}

std::vector<std::string> chipsWithHistory(const std::string& stateDirectory) {
  std::vector<std::string> chips;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(stateDirectory + "/korud", none)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with(suffix)) chips.push_back(name.substr(0, name.size() - 8));
  }
  std::sort(chips.begin(), chips.end());
  return chips;
}

HistoryReader::HistoryReader(std::string path)
    : path_(std::move(path)),
      file_(::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
  if (!file_) Orb::throwErrno("cannot open {}", path_);
  Shoal::checkFile(file_.get(), path_);
  HistoryHeader header = {};
  readAt(file_.get(), &header, sizeof header, 0, path_);  // (Zeros where it ends too early.)
  if (const std::string why = whyNoHistory(header); !why.empty()) {
    throw std::runtime_error(fmt::format("{} {}", path_, why));
  }
  capacity_ = header.capacity;
  id_ = header.id;
}

std::vector<HistoryRecord> HistoryReader::after(uint64_t sequence) const {
  std::vector<HistorySlot> slots;
  const HistoryHeader header = newHistoryHeader(capacity_, id_);
  for (int look = 0; look < mostLooks; ++look) {
    slots = slotsOf(file_.get(), header, path_);
    std::sort(slots.begin(), slots.end(),
              [](const auto& a, const auto& b) { return a.sequence < b.sequence; });
    if (!hasGap(slots)) break;
  }
  std::vector<HistoryRecord> records;
  for (const HistorySlot& slot : slots) {
    // (Of a place that could not be written since, it holds one of an earlier round.)
    if (slot.sequence > sequence && slot.sequence + capacity_ > slots.back().sequence) {
      records.push_back(recordOf(slot));
    }
  }
  return records;
}

bool HistoryReader::isReplaced() const {
  struct stat mine;
  struct stat there;
  if (::fstat(file_.get(), &mine) != 0 || ::lstat(path_.c_str(), &there) != 0) return true;
  return mine.st_ino != there.st_ino || mine.st_dev != there.st_dev;
}

}  // namespace Board
