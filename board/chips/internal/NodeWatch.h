#pragma once

// Tells chips that the file of their device has appeared, or another one in its place. One watch
// for all chips of a board; an event costs nothing to those whose file it is not. Directories that
// tell of nothing, as those below /sys, are as good as not watched. Used on the framework's thread,
// served on the event loop.

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"

namespace Board {

class NodeWatch {
 public:
  // `appeared` is called for each chip of a file that has appeared; it may add and remove chips.
  // Where nothing can be watched, nothing is told.
  explicit NodeWatch(std::function<void(const std::string& chip)> appeared);

  void add(const std::string& chip, const std::string& path);
  void remove(const std::string& chip, const std::string& path);

 private:
  void read();

  const std::function<void(const std::string& chip)> appeared_;
  const Orb::Descriptor inotify_;
  std::map<int, std::string> directories_;              // by handle
  std::map<std::string, std::set<std::string>> chips_;  // by path
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Board
