#pragma once

// A state directory of a test's own, removed with everything in it at the end of the scope.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "Shoal/StatePath.h"

namespace Testing {

class StateDirectory {
 public:
  StateDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "koru-state-XXXXXX").string();
    if (!::mkdtemp(path_.data())) throw std::runtime_error("cannot make " + path_);
    Shoal::stateDirectoryIs(path_);
  }
  ~StateDirectory() {
    Shoal::stateDirectoryIs("");
    std::filesystem::remove_all(path_);
  }
  StateDirectory(const StateDirectory&) = delete;
  StateDirectory& operator=(const StateDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& mountPath) const { return path_ + "/" + mountPath; }

 private:
  std::string path_;
};

}  // namespace Testing
