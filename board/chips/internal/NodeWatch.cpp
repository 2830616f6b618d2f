#include "board/chips/internal/NodeWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

namespace Board {

NodeWatch::NodeWatch(std::function<void(const std::string& chip)> appeared)
    : appeared_(std::move(appeared)), inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (inotify_) watch_ = Orb::eventLoop().readable(inotify_.get(), [this] { read(); });
}

void NodeWatch::add(const std::string& chip, const std::string& path) {
  chips_[path].insert(chip);
  const std::string directory = std::filesystem::path(path).parent_path().string();
  const int handle =
      ::inotify_add_watch(inotify_.get(), directory.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
  if (handle >= 0) directories_[handle] = directory;
}

// (The directory stays watched: boards have few.)
void NodeWatch::remove(const std::string& chip, const std::string& path) {
  const auto found = chips_.find(path);
  if (found == chips_.end()) return;
  found->second.erase(chip);
  if (found->second.empty()) chips_.erase(found);
}

void NodeWatch::read() {
  std::set<std::string> told;
  alignas(inotify_event) char events[4096];
  for (ssize_t size; (size = ::read(inotify_.get(), events, sizeof events)) > 0;) {
    for (const char* at = events; at < events + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      at += sizeof(inotify_event) + event->len;
      const auto directory = directories_.find(event->wd);
      if (directory == directories_.end()) continue;
      if (event->mask & IN_IGNORED) {
        directories_.erase(directory);
      } else if (event->len != 0) {
        const auto found =
            chips_.find((std::filesystem::path(directory->second) / event->name).string());
        if (found != chips_.end()) told.insert(found->second.begin(), found->second.end());
      }
    }
  }
  for (const std::string& chip : told) appeared_(chip);
}

}  // namespace Board
