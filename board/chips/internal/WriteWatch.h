#pragma once

// Which files of a directory somebody is writing at this moment: those that have been changed since
// they were last closed or put in place. Whoever reads one of them now may find half of it. Used on
// the framework's thread, served on the event loop.

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"

namespace Board {

class WriteWatch {
 public:
  // `changed` is called when a file of the directory has been closed, moved or given other rights,
  // and must not destroy this. Throws std::system_error when nothing can be watched. A directory
  // that is not there has no such files.
  WriteWatch(std::string directory, std::function<void()> changed);

  // As it is at this moment.
  bool isBeingWritten(const std::string& name);

 private:
  void heard();
  bool read();

  const std::string directory_;
  const std::function<void()> changed_;
  const Orb::Descriptor inotify_;
  int handle_ = -1;
  std::set<std::string> written_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Board
