#pragma once

// Tells when something appears in, changes its name in or leaves the directory of a table; the
// directory need not exist yet. Internal to Shoal; served on the event loop.

#include <functional>
#include <memory>
#include <string>

#include "Orb/EventLoop.h"
#include "Orb/Export.h"
#include "Shoal/Descriptor.h"

namespace Shoal {

class ORB_EXPORT DirectoryWatch {
 public:
  // `changed` may destroy the watch. Throws std::system_error when nothing can be watched.
  DirectoryWatch(std::string directory, std::function<void()> changed);
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

 private:
  void watchNearest();
  void heard();

  const std::string directory_;
  const std::function<void()> changed_;
  Descriptor inotify_;
  std::string watched_;  // the directory, or the nearest one above it that exists
  int handle_ = -1;
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Shoal
