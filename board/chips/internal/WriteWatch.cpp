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

// Where the links lie that lead to a directory: pointing one elsewhere changes what is meant.
std::set<std::string> holdersOfLinks(const std::filesystem::path& directory) {
  std::set<std::string> holders;
  for (auto at = directory; at.has_relative_path(); at = at.parent_path()) {
    std::error_code failed;
    if (std::filesystem::is_symlink(at, failed)) holders.insert(at.parent_path());
  }
  return holders;
}

}  // namespace

WriteWatch::WriteWatch(std::function<void()> changed)
    : changed_(std::move(changed)), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) Orb::throwErrno("cannot watch files");
  watch_ = Orb::eventLoop().readable(inotify_.get(), [this] { heard(); });
}

void WriteWatch::directoriesAre(std::set<std::string> directories) {
  directories_ = std::move(directories);
  watchAll();
}

// A directory may be another one by now, under the same name, and one may have several names.
void WriteWatch::watchAll() {
  const auto before = std::exchange(watched_, {});
  isWhole_ = true;
  for (const std::string& directory : directories_) {
    if (!watchNearest(directory)) isWhole_ = false;
    for (const std::string& holder : holdersOfLinks(directory)) watch(holder);
  }
  for (const auto& [handle, names] : before) {
    if (!watched_.contains(handle)) ::inotify_rm_watch(inotify_.get(), handle);
  }
}

// The directory, or the nearest one above it that is there, where it may appear. What lies between
// them may do so while this looks: then it looks again.
bool WriteWatch::watchNearest(const std::filesystem::path& directory) {
  std::filesystem::path found;
  size_t before;
  do {
    before = found.native().size();
    found = directory;
    while (!watch(found) && found.has_relative_path()) found = found.parent_path();
  } while (found != directory && found.native().size() > before);
  return found == directory;
}

bool WriteWatch::watch(const std::string& directory) {
  const int handle = ::inotify_add_watch(inotify_.get(), directory.c_str(),
                                         endings | beginnings | IN_MOVE_SELF | IN_ONLYDIR);
  if (handle >= 0) watched_[handle].insert(directory);
  return handle >= 0;
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
      if (event->mask & IN_IGNORED && watched_.erase(event->wd) > 0) isWhole_ = false;
      if (event->mask & endings) hasEnded = true;
      const auto directory = watched_.find(event->wd);
      if (event->len == 0 || directory == watched_.end()) continue;
      for (const std::string& name : directory->second) {
        hasEnded |= happened(event->mask, name + '/' + event->name);
      }
    }
  }
  if (!isWhole_) watchAll();
  return hasEnded;
}

bool WriteWatch::happened(uint32_t what, const std::string& path) {
  if (what & endings & ~uint32_t{IN_ATTRIB}) written_.erase(path);
  const bool isWhole = what & IN_CREATE && !isEmptyFile(path);
  if (what & beginnings && !isWhole) written_.insert(path);
  return isWhole;
}

}  // namespace Board
