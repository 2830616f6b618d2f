#include "Shoal/DirectoryWatch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Shoal {

namespace {

constexpr uint32_t changes = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF |
                             IN_MOVE_SELF | IN_ONLYDIR;

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

}  // namespace

DirectoryWatch::DirectoryWatch(std::string directory, std::function<void()> changed)
    : directory_(std::move(directory)),
      changed_(std::move(changed)),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) throw std::system_error(errno, std::generic_category(), "cannot watch files");
  watchNearest();
  watch_ = Orb::eventLoop().readable(inotify_.get(), [this] { heard(); });
}

// A directory may appear between the look and the watch: whatever is watched, the next one down is
// tried again until it is missing indeed.
void DirectoryWatch::watchNearest() {
  std::string found = directory_;
  int handle = -1;
  while ((handle = ::inotify_add_watch(inotify_.get(), found.c_str(), changes)) < 0) {
    if (found == "/" || (errno != ENOENT && errno != ENOTDIR)) {
      throw std::system_error(errno, std::generic_category(),
                              fmt::format("cannot watch {}", found));
    }
    found = parentOf(found);
  }
  const bool deeper = found.size() > watched_.size() && found != directory_;
  if (handle_ >= 0 && handle_ != handle) ::inotify_rm_watch(inotify_.get(), handle_);
  handle_ = handle;
  watched_ = found;
  if (deeper) watchNearest();
}

void DirectoryWatch::heard() {
  alignas(inotify_event) char events[4096];
  while (::read(inotify_.get(), events, sizeof events) > 0) {
  }
  watched_.clear();
  watchNearest();
  // May destroy this object, and the function with it.
  const auto changed = changed_;
  changed();
}

}  // namespace Shoal
