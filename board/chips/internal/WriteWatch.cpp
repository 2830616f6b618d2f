#include "board/chips/internal/WriteWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "Orb/Errno.h"

namespace Board {

namespace {

constexpr uint32_t endings = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB;
constexpr uint32_t beginnings = IN_CREATE | IN_MODIFY;

// What has just been made and is empty is going to be written; a link is whole at once.
bool isEmptyFile(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}

}  // namespace

WriteWatch::WriteWatch(std::function<void()> changed)
    : changed_(std::move(changed)), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) Orb::throwErrno("cannot watch files");
  watch_ = Orb::eventLoop().readable(inotify_.get(), [this] { heard(); });
}

void WriteWatch::directoriesAre(std::set<std::string> directories) {
  if (directories_ == directories) return;
  directories_ = std::move(directories);
  for (const auto& [handle, directory] : watched_) {
    if (!directories_.contains(directory)) ::inotify_rm_watch(inotify_.get(), handle);
  }
  std::erase_if(watched_, [&](const auto& entry) { return !directories_.contains(entry.second); });
  addMissing();
}

// A directory may be another one by now, under the same name.
void WriteWatch::addMissing() {
  std::set<std::string> missing = directories_;
  for (const auto& [handle, directory] : watched_) missing.erase(directory);
  for (const std::string& directory : missing) {
    const int handle = ::inotify_add_watch(inotify_.get(), directory.c_str(),
                                           endings | beginnings | IN_MOVE_SELF | IN_ONLYDIR);
    if (handle >= 0) watched_[handle] = directory;
  }
}

bool WriteWatch::isBeingWritten(const std::string& path) {
  read();
  return written_.contains(path);
}

void WriteWatch::heard() {
  if (read()) changed_();
}

// Takes in what has happened, and says whether any writing has ended.
bool WriteWatch::read() {
  bool hasEnded = false;
  alignas(inotify_event) char events[4096];
  for (ssize_t size; (size = ::read(inotify_.get(), events, sizeof events)) > 0;) {
    for (const char* at = events; at < events + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      at += sizeof(inotify_event) + event->len;
      // (Who knows what was lost.)
      if (event->mask & (IN_IGNORED | IN_Q_OVERFLOW)) {
        written_.clear();
        hasEnded = true;
      }
      if (event->mask & IN_MOVE_SELF) ::inotify_rm_watch(inotify_.get(), event->wd);
      if (event->mask & IN_IGNORED) watched_.erase(event->wd);
      const auto directory = watched_.find(event->wd);
      if (event->len == 0 || directory == watched_.end()) continue;
      const std::string path = directory->second + '/' + event->name;
      if (event->mask & endings & ~uint32_t{IN_ATTRIB}) written_.erase(path);
      if (event->mask & endings) hasEnded = true;
      const bool isNew = event->mask & IN_CREATE;
      if (event->mask & beginnings && (!isNew || isEmptyFile(path))) written_.insert(path);
    }
  }
  addMissing();
  return hasEnded;
}

}  // namespace Board
