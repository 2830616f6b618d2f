#pragma once

// The value file of the mock transports, which is one for the whole machine: put aside while a test
// uses it, and put back afterwards. Tests that use it hold a lock, so that test programs running
// side by side take turns.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "KoruRegFile/Utils.h"

namespace Testing {

class MockValueFile {
 public:
  MockValueFile() {
    if (exists()) std::filesystem::rename(path(), aside());
  }
  ~MockValueFile() {
    std::filesystem::remove(path());
    if (std::filesystem::exists(aside())) std::filesystem::rename(aside(), path());
  }
  MockValueFile(const MockValueFile&) = delete;
  MockValueFile& operator=(const MockValueFile&) = delete;

  bool exists() const { return std::filesystem::exists(std::filesystem::symlink_status(path())); }
  std::string content() const {
    std::stringstream text;
    text << std::ifstream(path()).rdbuf();
    return text.str();
  }
  void contentIs(const std::string& text) const { std::ofstream(path()) << text; }

 private:
  static const char* path() { return KoruRegFile::MockTransportMethodImpl::valueFilePath; }
  static std::filesystem::path aside() { return fmt::format("{}.aside", path()); }

  KoruRegFile::Utils::UnixFdRes lockFile_{
      ::open(fmt::format("{}.lock", path()).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666)};
  KoruRegFile::Utils::UnixFlockRes lock_{lockFile_.fd(), LOCK_EX};
};

}  // namespace Testing
