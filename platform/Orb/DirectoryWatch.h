#pragma once

// Tells when something appears in a directory, changes its name there, leaves it, or has been
// written; the directory need not exist yet. All watches of a process share one inotify instance,
// of which a user has few. Served on the process's event loop.

#include <functional>
#include <memory>
#include <string>

#include "Orb/Export.h"

namespace Orb {

class ORB_EXPORT DirectoryWatch {
 public:
  // `changed` may destroy the watch. Throws std::system_error when nothing can be watched.
  DirectoryWatch(const std::string& directory, std::function<void()> changed);
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

 private:
  class Inotify;
  struct Watched;

  const std::shared_ptr<Inotify> inotify_;
  const std::shared_ptr<Watched> watched_;
};

}  // namespace Orb
