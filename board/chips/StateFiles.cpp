#include "board/chips/StateFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Board {

namespace {

constexpr mode_t directoryMode = 0750;
constexpr mode_t fileMode = 0600;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(fmt::format("cannot use {}: {}", path, why));
}

struct stat statusOf(const Orb::Descriptor& file, const std::string& path) {
  struct stat status;
  if (::fstat(file.get(), &status) != 0) Orb::throwErrno("cannot look at {}", path);
  return status;
}

// A directory of root's is as good as one of one's own.
void checkDirectory(const std::string& path, bool mayBeRoots) {
  const Orb::Descriptor directory(
      ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) Orb::throwErrno("cannot open {}", path);
  const struct stat status = statusOf(directory, path);
  if (status.st_uid != ::geteuid() && !(mayBeRoots && status.st_uid == 0)) {
    refuse(path, fmt::format("it belongs to user {}", status.st_uid));
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    refuse(path, fmt::format("others may write it (mode {:04o}); 'chmod go-w {}' mends that",
                             status.st_mode & 07777, path));
  }
}

bool makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), directoryMode) != 0) {
    if (errno == EEXIST) return false;
    Orb::throwErrno("cannot make directory {}", path);
  }
  // Whatever the umask.
  if (::chmod(path.c_str(), directoryMode) != 0) Orb::throwErrno("cannot chmod {}", path);
  Shoal::setFileGroup(path);
  return true;
}

}  // namespace

std::string prepareStateDirectory(const std::string& path) {
  namespace fs = std::filesystem;
  const fs::path absolute = fs::absolute(path).lexically_normal();
  const fs::path wanted = absolute.has_filename() ? absolute : absolute.parent_path();
  if (!fs::exists(wanted)) {
    fs::create_directories(wanted.parent_path());
    makeDirectory(wanted.string());
  }
  const std::string found = fs::canonical(wanted).string();
  checkDirectory(found, true);
  return found;
}

void makeOwnDirectory(const std::string& path) {
  if (!makeDirectory(path)) checkDirectory(path, false);
}

Orb::Descriptor openOwn(const std::string& path, int flags) {
  // (Without O_NONBLOCK the opening of a pipe may wait for its other end.)
  Orb::Descriptor file(
      ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, fileMode));
  if (!file) {
    if (errno == ENOENT && (flags & O_CREAT) == 0) return file;
    if (errno == ELOOP) refuse(path, "it is a symbolic link");
    Orb::throwErrno("cannot open {}", path);
  }
  const struct stat status = statusOf(file, path);
  if (!S_ISREG(status.st_mode)) refuse(path, "it is no regular file");
  if (status.st_uid != ::geteuid())
    refuse(path, fmt::format("it belongs to user {}", status.st_uid));
  if (status.st_nlink > 1) refuse(path, "it has another name as well");
  return file;
}

std::string readAll(const Orb::Descriptor& file, const std::string& path) {
  std::string text;
  char piece[1 << 14];
  while (true) {
    const ssize_t count = ::read(file.get(), piece, sizeof piece);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Orb::throwErrno("cannot read {}", path);
    if (count == 0) return text;
    text.append(piece, static_cast<size_t>(count));
  }
}

void writeAll(const Orb::Descriptor& file, const std::string& text, const std::string& path) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = ::write(file.get(), text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) Orb::throwErrno("cannot write {}", path);
    done += static_cast<size_t>(count);
  }
}

void replaceFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".next";
  // What is left over from a kill, or was put there by somebody, is not written into.
  removeFile(next);
  writeAll(openOwn(next, O_WRONLY | O_CREAT | O_EXCL), text, next);
  if (::rename(next.c_str(), path.c_str()) != 0) Orb::throwErrno("cannot put in place {}", path);
}

void removeFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) Orb::throwErrno("cannot remove {}", path);
}

}  // namespace Board
