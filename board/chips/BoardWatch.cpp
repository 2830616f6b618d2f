#include "board/chips/BoardWatch.h"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <utility>

#include "Orb/Trace.h"
#include "board/chips/internal/WriteWatch.h"
#include "board/description/SystemFile.h"

namespace Board {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds longestPause{2};
// The coarsest clock of a file system that is in use: two changes within it may look like one.
constexpr std::chrono::seconds coarsestClock{2};
Orb::TraceHandle trace("korud");

std::string directoryOf(const std::string& file) {
  return fs::absolute(file).lexically_normal().parent_path().string();
}

// (One of the future is none: a machine without a clock of its own begins long ago.)
bool isYoung(const std::string& file) {
  std::error_code failed;
  const auto written = fs::last_write_time(file, failed);
  const auto age = fs::file_time_type::clock::now() - written;
  return !failed && age < coarsestClock && age > -coarsestClock;
}

}  // namespace

BoardWatch::BoardWatch(BoardKeeper& keeper, std::string file, Delays delays)
    : keeper_(keeper),
      file_(std::move(file)),
      directory_(directoryOf(file_)),
      delays_(delays),
      files_{file_},
      delay_(delays_.first),
      writes_(std::make_unique<WriteWatch>([this] { changed(); })) {
  watchFiles();
  // Editors put a new file in the place of the old one, so the directory is what is watched; it may
  // come and go itself.
  watch_ = std::make_unique<Orb::DirectoryWatch>(directory_, [this] { changed(); });
}

BoardWatch::~BoardWatch() = default;

// Register maps may lie anywhere.
void BoardWatch::watchFiles() {
  std::set<std::string> directories;
  for (const std::string& file : files_) directories.insert(directoryOf(file));
  writes_->directoriesAre(std::move(directories));
}

// Much may go on in the directories. What is being written is read when it is closed.
void BoardWatch::changed() {
  if (stamp() == stamp_) return;
  if (isBeingWritten()) return waitForEnd();
  load();
}

// Somebody may keep it open for ever; what has not changed for so long is whole.
void BoardWatch::waitForEnd() {
  if (std::exchange(isWaiting_, true)) return;
  stamp_.clear();
  timer_ = Orb::eventLoop().after(longestPause, [this, before = stamp()] {
    isWaiting_ = false;
    if (stamp() != before) return waitForEnd();
    read(true);
  });
}

bool BoardWatch::isBeingWritten() {
  return std::any_of(files_.begin(), files_.end(), [this](const std::string& file) {
    return writes_->isBeingWritten(fs::absolute(file).lexically_normal().string());
  });
}

std::string BoardWatch::stamp() const {
  std::string stamp;
  for (const std::string& file : files_) stamp += fileStamp(file) + ' ';
  return stamp;
}

// What was written a moment ago may be written once more without looking different.
bool BoardWatch::canTellChanges() const {
  return std::none_of(files_.begin(), files_.end(), isYoung);
}

void BoardWatch::load() { read(false); }

// (A large description takes far more memory while it is read than it leaves behind.)
void BoardWatch::read(bool isStable) {
  readFile(isStable);
  ::malloc_trim(0);
}

// Says nothing of a file that somebody has begun to write, or has written meanwhile: what was read
// may be half of it. Its end is heard of.
void BoardWatch::readFile(bool isStable) {
  timer_.reset();
  isWaiting_ = false;
  watchFiles();
  std::string before = stamp();
  bool isUnread = false;
  bool areNew = false;
  try {
    const std::string text = textOfFile(file_);
    if (isInForce(text)) {
      failure_.clear();
      stamp_ = canTellChanges() ? std::move(before) : std::string();
      delay_ = delays_.first;
      return;
    }
    const Description board = readText(text, file_);
    areNew = std::exchange(files_, board.files) != board.files;
    if (areNew) {
      before = stamp();
      watchFiles();
    }
    const bool isWhole = isStable || (!isBeingWritten() && stamp() == before);
    if (!isWhole && keeper_.hasChips()) return waitForEnd();
    use(board);
    areNew ? inForce_.reset() : isInForceNow(text, board);
    isUnread = board.isUnread;
  } catch (const FileError& e) {
    if (!isStable && isBeingWritten()) return waitForEnd();
    failed(e.what());
    isUnread = e.unread();
  }
  // What has changed meanwhile is read again; so is what could not be read. Files that nobody knew
  // of may have changed before their stamp was taken: the next event has them read once more.
  const bool isRead = !isUnread && !areNew && canTellChanges();
  stamp_ = isRead ? std::move(before) : std::string();
  if (isUnread) return tryAgain();
  delay_ = delays_.first;
}

void BoardWatch::use(const Description& board) {
  if (!board.namesChips && keeper_.hasChips()) {
    return failed(
        board.problems.empty()
            ? fmt::format("{}: there are no chips in it any more (chip = [] says so)", file_)
            : board.problems.front().message());
  }
  failure_.clear();
  keeper_.boardIs(board);
}

bool BoardWatch::isInForce(const std::string& text) const {
  if (!inForce_ || text.size() != inForce_->size) return false;
  if (std::hash<std::string>()(text) != inForce_->hash) return false;
  const auto isThere = [this](const std::string& chip) {
    return keeper_.description(chip) != nullptr;
  };
  const auto isTheSame = [](const auto& map) { return contentStamp(map.first) == map.second; };
  return std::all_of(inForce_->chips.begin(), inForce_->chips.end(), isThere) &&
         std::all_of(inForce_->mapStamps.begin(), inForce_->mapStamps.end(), isTheSame);
}

// (What is wrong with a board may be so no more, for reasons beyond its files.)
void BoardWatch::isInForceNow(const std::string& text, const Description& board) {
  inForce_.reset();
  if (!failure_.empty() || !board.problems.empty()) return;
  InForce now{text.size(), std::hash<std::string>()(text), {}, {}};
  for (const Chip& chip : board.chips) {
    const auto [map, isNew] = now.mapStamps.emplace(chip.registerMap, chip.mapStamp);
    if (!isNew && map->second != chip.mapStamp) return;
    now.chips.push_back(chip.name);
  }
  inForce_ = std::move(now);
}

void BoardWatch::failed(const std::string& why) {
  if (failure_ != why) ORB_TRACE(trace, 0, "{}; the chips stay as they are", why);
  failure_ = why;
}

// What stood in the way may go without a trace in the directory.
void BoardWatch::tryAgain() {
  timer_ = Orb::eventLoop().after(delay_, [this] {
    delay_ = std::min(2 * delay_, delays_.longest);
    load();
  });
}

}  // namespace Board
