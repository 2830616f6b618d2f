#include "simulator/model/LockedState.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Simulator {

namespace {

constexpr off_t longestLedger = 1 << 26;

int openFile(const std::string& path, int flags) {
  constexpr mode_t mode = 0644;
  return static_cast<int>(
      ::syscall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, mode));
}

}  // namespace

std::string placeOfNode(const std::string& directory, const std::string& path) {
  std::string name = path.substr(std::min<size_t>(1, path.size()));
  std::ranges::replace(name, '/', '%');
  return directory + "/nodes/" + name;
}

LockedState::LockedState(const std::string& directory) : directory_(directory) {
  const std::string path = directory_ + "/lock";
  lock_ = openFile(path, O_RDWR | O_CREAT);
  if (lock_ >= 0) lock();
  if (lock_ < 0) {
    refuse(path, std::strerror(errno), errno);
  } else {
    map();
  }
}

void LockedState::lock() {
  while (::flock(lock_, LOCK_EX) != 0) {
    const int error = errno;
    if (error == EINTR) continue;
    ::close(lock_);
    lock_ = -1;
    errno = error;
    return;
  }
}

LockedState::~LockedState() {
  if (!bytes_.empty()) ::munmap(bytes_.data(), bytes_.size());
  if (lock_ < 0) return;
  ::flock(lock_, LOCK_UN);  // a child that was forked meanwhile has the descriptor, too
  ::close(lock_);
}

void LockedState::refuse(const std::string& file, const std::string& why, int error) {
  why_ = file + ": " + why;
  error_ = error;
}

void LockedState::map() {
  const std::string path = directory_ + "/board";
  const int file = openFile(path, O_RDWR);
  if (file < 0) return refuse(path, std::strerror(errno), errno);
  const off_t size = ::lseek(file, 0, SEEK_END);
  constexpr off_t most = off_t{1} << 30;
  if (size < static_cast<off_t>(sizeof(Header)) || size > most) {
    ::close(file);
    return refuse(path, size > most ? "it is too long" : "it has been cut", 0);
  }
  void* const mapped =
      ::mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  const int error = errno;
  ::close(file);
  if (mapped == MAP_FAILED) return refuse(path, std::strerror(error), error);
  bytes_ = {static_cast<uint8_t*>(mapped), static_cast<size_t>(size)};
  const char* why = whyUnsound(bytes_);
  if (why) return refuse(path, why, 0);
  image_ = partsOf(bytes_);
}

void LockedState::note(std::string line) {
  line += '\n';
  const std::string path = directory_ + "/ledger";
  int file = openFile(path, O_WRONLY | O_CREAT | O_APPEND);
  if (file >= 0 && ::lseek(file, 0, SEEK_END) > longestLedger) {
    ::rename(path.c_str(), (path + ".old").c_str());
    ::close(file);
    file = openFile(path, O_WRONLY | O_CREAT | O_APPEND);
  }
  const long written = file < 0 ? -1 : ::syscall(SYS_write, file, line.data(), line.size());
  if (file >= 0) ::close(file);
  if (written != static_cast<long>(line.size()) && image_.header) ++image_.header->lostLines;
}

}  // namespace Simulator
