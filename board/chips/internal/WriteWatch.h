#pragma once

// Which files somebody is writing at this moment: those that have been changed since they were last
// closed or put in place. Whoever reads one of them now may find half of it. Used on the
// framework's thread, served on the event loop.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"

namespace Board {

class WriteWatch {
 public:
  // `changed` is called when a file of the directories has been closed, moved or given other
  // rights, and when one of the directories has gone; it must not destroy this. Throws
  // std::system_error when nothing can be watched.
  explicit WriteWatch(std::function<void()> changed);

  // The directories to be watched, as they are now: a link may lead elsewhere since. One that is
  // not there has no such files, until it is; `changed` is called when it appears.
  void directoriesAre(std::set<std::string> directories);

  // As it is at this moment; of a file in one of the directories.
  bool isBeingWritten(const std::string& path);

 private:
  void heard();
  bool read();
  bool happened(uint32_t what, const std::string& path);
  void watchAll();
  bool watchNearest(const std::filesystem::path& directory);
  bool watch(const std::string& directory);

  const std::function<void()> changed_;
  const Orb::Descriptor inotify_;
  std::set<std::string> directories_;
  bool isWhole_ = true;                           // every directory is watched
  std::map<int, std::set<std::string>> watched_;  // by handle
  std::set<std::string> written_;                 // paths
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Board
