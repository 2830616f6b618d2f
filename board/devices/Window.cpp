#include "board/devices/Window.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "KoruRegFile/Utils.h"
#include "Plat/PciPaxImpl.h"

namespace Board {

namespace {

using KoruRegFile::Utils::UnixFdRes;

[[noreturn]] void throwErrno(const char* what, const std::string& path) {
  throw std::system_error(errno, std::generic_category(),
                          fmt::format("cannot {} the register window {}", what, path));
}

// Never made shorter: the file may be somebody's with more in it.
UnixFdRes openWindow(const std::string& path, size_t size) {
  UnixFdRes file(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640));
  if (file.fd() < 0) throwErrno("open", path);
  struct stat status;
  if (::fstat(file.fd(), &status) != 0) throwErrno("look at", path);
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    throwErrno("use", path);
  }
  if (static_cast<size_t>(status.st_size) < size &&
      ::ftruncate(file.fd(), static_cast<off_t>(size)) != 0) {
    throwErrno("lengthen", path);
  }
  return file;
}

void* mapWindow(const std::string& path, size_t size) {
  const UnixFdRes file = path.empty() ? UnixFdRes(-1) : openWindow(path, size);
  const int flags = path.empty() ? MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE : MAP_SHARED;
  void* begin = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, file.fd(), 0);
  if (begin == MAP_FAILED) throwErrno("map", path);
  return begin;
}

}  // namespace

size_t sizeOfWindow(uint64_t end) {
  if (std::in_range<size_t>(end)) return static_cast<size_t>(end);
  throw std::system_error(EFBIG, std::generic_category(),
                          fmt::format("cannot map a register window of {:#x} bytes", end));
}

Window deviceWindow(const std::string& name, const std::string& path) {
  const auto pax = Plat::pciPaxImplFactory(name, path);
  return {pax->window(), pax->windowSize(),
          std::shared_ptr<const void>(pax.get(), [pax](auto*) {})};
}

Window fileWindow(const std::string& path, size_t size) {
  void* const begin = mapWindow(path, size);
  return {static_cast<std::byte*>(begin), size,
          std::shared_ptr<const void>(
              begin, [size](const void* at) { ::munmap(const_cast<void*>(at), size); })};
}

}  // namespace Board
