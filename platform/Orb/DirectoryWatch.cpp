#include "Orb/DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <set>
#include <utility>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Orb/EventLoop.h"

namespace Orb {

namespace {

constexpr uint32_t changes = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF |
                             IN_MOVE_SELF | IN_CLOSE_WRITE | IN_ONLYDIR;
constexpr int nothing = -1;

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

}  // namespace

struct DirectoryWatch::Watched {
  std::string directory;
  std::function<void()> changed;
  int handle = nothing;  // of the directory, or of the nearest one above it that exists
};

class DirectoryWatch::Inotify {
 public:
  using Entry = std::shared_ptr<Watched>;

  // The one of this process; it lives as long as anybody holds it.
  static std::shared_ptr<Inotify> shared() {
    static std::weak_ptr<Inotify> one;
    auto inotify = one.lock();
    if (!inotify) one = inotify = std::make_shared<Inotify>();
    return inotify;
  }

  Inotify() : descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!descriptor_) throwErrno("cannot watch files");
    watch_ = eventLoop().readable(descriptor_.get(), [this] { heard(); });
  }

  void add(const Entry& entry) {
    entries_.push_back(entry);
    try {
      watchNearest(*entry);
    } catch (...) {
      remove(entry);
      throw;
    }
  }
  void remove(const Entry& entry) {
    entries_.erase(std::find(entries_.begin(), entries_.end(), entry));
    release(std::exchange(entry->handle, nothing));
  }

 private:
  // A directory may appear between the look and the watch: whatever is watched, the next one down
  // is tried again until it is missing indeed.
  void watchNearest(Watched& entry) {
    std::string found;
    std::string before;
    do {
      before = found;
      found = entry.directory;
      int handle;
      while ((handle = ::inotify_add_watch(descriptor_.get(), found.c_str(), changes)) < 0) {
        if (found == "/" || (errno != ENOENT && errno != ENOTDIR)) {
          throwErrno("cannot watch {}", found);
        }
        found = parentOf(found);
      }
      const int previous = std::exchange(entry.handle, handle);
      if (previous != handle) release(previous);
    } while (found.size() > before.size() && found != entry.directory);
  }

  // The kernel gives out one handle for a directory, however often it is watched.
  void release(int handle) {
    const auto uses = [handle](const Entry& entry) { return entry->handle == handle; };
    if (handle != nothing && std::none_of(entries_.begin(), entries_.end(), uses)) {
      ::inotify_rm_watch(descriptor_.get(), handle);
    }
  }

  void heard() {
    const auto keep = shared();
    const std::set<int> handles = readHandles();
    const auto present = entries_;
    std::exception_ptr failure;
    for (const Entry& entry : present) {
      if (entry->handle == nothing || !handles.contains(entry->handle)) continue;
      try {
        watchNearest(*entry);
        // May end this watch and any other.
        entry->changed();
      } catch (...) {
        // The others are told all the same.
        if (!failure) failure = std::current_exception();
      }
    }
    if (failure) std::rethrow_exception(failure);
  }

  // Of what has changed.
  std::set<int> readHandles() {
    std::set<int> handles;
    alignas(inotify_event) char events[4096];
    for (ssize_t size; (size = ::read(descriptor_.get(), events, sizeof events)) > 0;) {
      for (const char* at = events; at < events + size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        handles.insert(event->wd);
        at += sizeof(inotify_event) + event->len;
      }
    }
    // Some were lost: anything may have changed.
    if (handles.contains(nothing)) {
      for (const Entry& entry : entries_) handles.insert(entry->handle);
    }
    return handles;
  }

  const Descriptor descriptor_;
  std::vector<Entry> entries_;
  std::unique_ptr<EventWatch> watch_;
};

DirectoryWatch::DirectoryWatch(const std::string& directory, std::function<void()> changed)
    : inotify_(Inotify::shared()),
      watched_(std::make_shared<Watched>(Watched{directory, std::move(changed)})) {
  inotify_->add(watched_);
}

DirectoryWatch::~DirectoryWatch() { inotify_->remove(watched_); }

}  // namespace Orb
