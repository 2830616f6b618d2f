#pragma once

// A file with a given content and a name of its own, removed at the end of the scope.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

namespace Testing {

class TempFile {
 public:
  explicit TempFile(std::string_view content = {}) {
    path_ = (std::filesystem::temp_directory_path() / "koru-test-XXXXXX").string();
    const int fd = ::mkstemp(path_.data());
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path_);
    ::close(fd);
    std::ofstream(path_, std::ios::binary) << content;
  }
  ~TempFile() { ::unlink(path_.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

}  // namespace Testing
