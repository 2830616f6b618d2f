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

WriteWatch::WriteWatch(std::string directory, std::function<void()> changed)
    : directory_(std::move(directory)),
      changed_(std::move(changed)),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) Orb::throwErrno("cannot watch files");
  read();
  watch_ = Orb::eventLoop().readable(inotify_.get(), [this] { heard(); });
}

bool WriteWatch::isBeingWritten(const std::string& name) {
  read();
  return written_.contains(name);
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
      if (event->mask & (IN_IGNORED | IN_Q_OVERFLOW)) written_.clear();
      // (Who knows what was lost.)
      if (event->mask & IN_Q_OVERFLOW) hasEnded = true;
      if (event->mask & IN_MOVE_SELF) ::inotify_rm_watch(inotify_.get(), event->wd);
      if (event->mask & IN_IGNORED) handle_ = -1;
      if (event->len == 0) continue;
      const std::string name(event->name);
      if (event->mask & endings & ~uint32_t{IN_ATTRIB}) written_.erase(name);
      if (event->mask & endings) hasEnded = true;
      const bool isNew = event->mask & IN_CREATE;
      if (event->mask & beginnings && (!isNew || isEmptyFile(directory_ + '/' + name))) {
        written_.insert(name);
      }
    }
  }
  // The directory may be another one by now, under the same name.
  if (handle_ < 0) {
    handle_ = ::inotify_add_watch(inotify_.get(), directory_.c_str(),
                                  endings | beginnings | IN_MOVE_SELF | IN_ONLYDIR);
  }
  return hasEnded;
}

}  // namespace Board
