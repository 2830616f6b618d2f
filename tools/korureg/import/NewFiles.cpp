#include "korureg/import/NewFiles.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Orb/Descriptor.h"
#include "korureg/Command.h"
#include "korureg/MapPlace.h"

namespace korureg {

namespace {

[[noreturn]] void fail(const std::string& path) {
  const int error = errno;
  if (error == EEXIST) {
    throw Failure(fmt::format("{} is there already; --force replaces it", mapPlace(path, 0, 0)));
  }
  throw Failure(fmt::format("{}: {}", mapPlace(path, 0, 0), std::strerror(error)));
}

void writeAll(int file, std::string_view text, const std::string& path) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno != EINTR) fail(path);
    if (count > 0) text.remove_prefix(static_cast<size_t>(count));
  }
}

mode_t usualMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

NewFiles::~NewFiles() {
  for (const File& file : files_) ::unlink(file.written.c_str());
}

std::string NewFiles::write(const std::string& path, const std::string& text) {
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0) {
    errno = EEXIST;
    if (existing_ == Existing::stays) fail(path);
    // (Nobody means a device or a folder to go for a map.)
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
      throw Failure(fmt::format("{} is no regular file", mapPlace(path, 0, 0)));
    }
  }
  std::string written = path + ".XXXXXX";
  const Orb::Descriptor file(::mkstemp(written.data()));
  if (file.get() < 0) fail(path);
  files_.push_back({path, written});
  writeAll(file.get(), text, path);
  if (::fchmod(file.get(), usualMode()) != 0 || ::fsync(file.get()) != 0) fail(path);
  return written;
}

void NewFiles::place() {
  for (const File& file : files_) {
    const char* const from = file.written.c_str();
    const int outcome = existing_ == Existing::stays ? ::link(from, file.path.c_str())
                                                     : ::rename(from, file.path.c_str());
    if (outcome != 0) fail(file.path);
  }
}

}  // namespace korureg
