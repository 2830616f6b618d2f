// The functions of the C library that libKoruSimulator.so stands in for, under a whole program.
// What concerns no simulated device file goes to the next library as it came.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>

#include "simulator/model/Devices.h"
#include "simulator/preload/Simulation.h"

#define EXPORTED __attribute__((visibility("default")))

static_assert(sizeof(struct stat) == sizeof(struct stat64), "meant for 64-bit systems");

namespace {

using Simulator::Node;
using Simulator::NodeKind;
using Simulator::Simulation;

// The function of that name behind this library.
template <class Function>
class Next {
 public:
  constexpr explicit Next(const char* name) : name_(name) {}
  Function* operator*() {
    void* found = found_.load(std::memory_order_relaxed);
    if (!found) {
      found = ::dlsym(RTLD_NEXT, name_);
      found_.store(found, std::memory_order_relaxed);
    }
    return reinterpret_cast<Function*>(found);
  }

 private:
  const char* const name_;
  std::atomic<void*> found_ = nullptr;
};

constinit Next<int(const char*, int, ...)> nextOpen("open");
constinit Next<int(int, const char*, int, ...)> nextOpenat("openat");
constinit Next<FILE*(const char*, const char*)> nextFopen("fopen");
constinit Next<ssize_t(int, void*, size_t)> nextRead("read");
constinit Next<ssize_t(int, const void*, size_t)> nextWrite("write");
constinit Next<int(int, unsigned long, ...)> nextIoctl("ioctl");
constinit Next<int(const char*, struct stat*)> nextStat("stat");
constinit Next<int(const char*, struct stat*)> nextLstat("lstat");
constinit Next<int(int, struct stat*)> nextFstat("fstat");
constinit Next<int(int, const char*, struct stat*, int)> nextFstatat("fstatat");
constinit Next<int(int, const char*, int, unsigned, struct statx*)> nextStatx("statx");
constinit Next<int(const char*, int)> nextAccess("access");
constinit Next<int(int, const char*, int, int)> nextFaccessat("faccessat");
constinit Next<int(const char*, int)> nextEaccess("eaccess");

const Node* nodeAt(const char* path) { return Simulation::instance().nodeAt(path); }

// The path that the system is to look at.
const char* placeOf(const char* path) {
  const Node* const node = nodeAt(path);
  return node ? node->place.c_str() : path;
}

bool hasMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// The file in the place of the node, which nothing but its offset is changed of.
int openNode(const Node& node, int flags) {
  const int fd = (*nextOpen)(node.place.c_str(), flags & ~(O_CREAT | O_EXCL | O_TRUNC | O_APPEND));
  if (fd >= 0) Simulation::instance().isOpened(node, fd);
  return fd;
}

int openAt(int directory, const char* path, int flags, mode_t mode) {
  const Node* const node = nodeAt(path);
  return node ? openNode(*node, flags) : (*nextOpenat)(directory, path, flags, mode);
}

mode_t charactersMode(mode_t mode) { return (mode & ~static_cast<mode_t>(S_IFMT)) | S_IFCHR; }

unsigned majorOf(const Node& node) { return node.kind == NodeKind::i2c ? 89 : 153; }

// The file of a node looks like a device.
int disguised(int result, struct stat* status) {
  if (result != 0 || !S_ISREG(status->st_mode) || Simulation::instance().isEmpty()) return result;
  const int error = errno;
  if (const Node* const node = Simulation::instance().nodeOf(status->st_dev, status->st_ino)) {
    status->st_mode = charactersMode(status->st_mode);
    status->st_rdev = makedev(majorOf(*node), node->number);
    status->st_size = 0;
  }
  errno = error;
  return result;
}

// Before the program has threads.
__attribute__((constructor)) void start() { Simulation::instance(); }

// What the descriptor is of; errno stays.
const Node* nodeOf(int fd) {
  if (Simulation::instance().isEmpty()) return nullptr;
  const int error = errno;
  const Node* const node = Simulation::instance().nodeOf(fd);
  errno = error;
  return node;
}

}  // namespace

extern "C" {

EXPORTED int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = hasMode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  const Node* const node = nodeAt(path);
  return node ? openNode(*node, flags) : (*nextOpen)(path, flags, mode);
}

EXPORTED int openat(int directory, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = hasMode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return openAt(directory, path, flags, mode);
}

// Those that a checked build calls when there is no mode.
EXPORTED int __open_2(const char* path, int flags) { return openAt(AT_FDCWD, path, flags, 0); }
EXPORTED int __openat_2(int directory, const char* path, int flags) {
  return openAt(directory, path, flags, 0);
}

EXPORTED int open64(const char*, int, ...) __attribute__((alias("open")));
EXPORTED int openat64(int, const char*, int, ...) __attribute__((alias("openat")));
EXPORTED int __open64_2(const char*, int) __attribute__((alias("__open_2")));
EXPORTED int __openat64_2(int, const char*, int) __attribute__((alias("__openat_2")));

EXPORTED FILE* fopen(const char* path, const char* mode) {
  const Node* const node = nodeAt(path);
  if (!node) return (*nextFopen)(path, mode);
  const bool isBoth = std::strchr(mode, '+') != nullptr;
  const int close = std::strchr(mode, 'e') != nullptr ? O_CLOEXEC : 0;
  const int fd = openNode(*node, (isBoth ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY) | close);
  return fd < 0 ? nullptr : ::fdopen(fd, mode);
}
EXPORTED FILE* fopen64(const char*, const char*) __attribute__((alias("fopen")));

EXPORTED ssize_t read(int fd, void* bytes, size_t count) {
  const Node* const node = nodeOf(fd);
  if (!node) return (*nextRead)(fd, bytes, count);
  return Simulation::instance().read(*node, fd, std::span(static_cast<uint8_t*>(bytes), count));
}

EXPORTED ssize_t __read_chk(int fd, void* bytes, size_t count, size_t room) {
  if (count > room) __builtin_trap();
  return ::read(fd, bytes, count);
}

EXPORTED ssize_t write(int fd, const void* bytes, size_t count) {
  const Node* const node = nodeOf(fd);
  if (!node) return (*nextWrite)(fd, bytes, count);
  return Simulation::instance().write(*node, fd,
                                      std::span(static_cast<const uint8_t*>(bytes), count));
}

EXPORTED int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  if (Simulator::isI2cRequest(request) || Simulator::isSpiRequest(request)) {
    const Node* const node = nodeOf(fd);
    if (node) return Simulation::instance().control(*node, fd, request, argument);
  }
  return (*nextIoctl)(fd, request, argument);
}

EXPORTED int stat(const char* path, struct stat* status) noexcept {
  return disguised((*nextStat)(placeOf(path), status), status);
}
EXPORTED int lstat(const char* path, struct stat* status) noexcept {
  return disguised((*nextLstat)(placeOf(path), status), status);
}
EXPORTED int fstat(int fd, struct stat* status) noexcept {
  return disguised((*nextFstat)(fd, status), status);
}
EXPORTED int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  return disguised((*nextFstatat)(directory, placeOf(path), status, flags), status);
}

// The same on systems of 64 bits, which their types do not say.
EXPORTED int stat64(const char* path, struct stat64* status) noexcept {
  return ::stat(path, reinterpret_cast<struct stat*>(status));
}
EXPORTED int lstat64(const char* path, struct stat64* status) noexcept {
  return ::lstat(path, reinterpret_cast<struct stat*>(status));
}
EXPORTED int fstat64(int fd, struct stat64* status) noexcept {
  return ::fstat(fd, reinterpret_cast<struct stat*>(status));
}
EXPORTED int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept {
  return ::fstatat(directory, path, reinterpret_cast<struct stat*>(status), flags);
}

EXPORTED int statx(int directory, const char* path, int flags, unsigned mask,
                   struct statx* status) noexcept {
  const int result = (*nextStatx)(directory, placeOf(path), flags, mask, status);
  if (result != 0 || Simulation::instance().isEmpty() || !S_ISREG(status->stx_mode)) return result;
  const auto device = makedev(status->stx_dev_major, status->stx_dev_minor);
  if (const Node* const node = Simulation::instance().nodeOf(device, status->stx_ino)) {
    status->stx_mode = static_cast<uint16_t>(charactersMode(status->stx_mode));
    status->stx_rdev_major = majorOf(*node);
    status->stx_rdev_minor = node->number;
    status->stx_size = 0;
  }
  return result;
}

EXPORTED int access(const char* path, int wanted) noexcept {
  return (*nextAccess)(placeOf(path), wanted);
}
EXPORTED int faccessat(int directory, const char* path, int wanted, int flags) noexcept {
  return (*nextFaccessat)(directory, placeOf(path), wanted, flags);
}
EXPORTED int eaccess(const char* path, int wanted) noexcept {
  return (*nextEaccess)(placeOf(path), wanted);
}
EXPORTED int euidaccess(const char* path, int wanted) noexcept {
  return (*nextEaccess)(placeOf(path), wanted);
}

}  // extern "C"
