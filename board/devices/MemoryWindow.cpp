#include "board/devices/MemoryWindow.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/Utils.h"

namespace Board {

namespace {

using Keel::GenericSigbusHandler;
using KoruRegFile::Utils::UnixFdRes;

[[noreturn]] void throwErrno(const char* what, const std::string& path) {
  throw std::system_error(errno, std::generic_category(),
                          fmt::format("cannot {} the register window {}", what, path));
}

size_t windowSize(const KoruRegFile::RegisterFile& registers) {
  size_t size = sizeof(uint32_t);
  for (const KoruRegFile::Register& reg : registers.registers()) {
    size = std::max(size, size_t{reg.address} + sizeof(uint32_t));
  }
  return size;
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

MemoryWindow::Mapping::~Mapping() { ::munmap(begin, size); }

MemoryWindow::MemoryWindow(const char* csvPath, const std::string& filePath)
    : BaseTransportMethodImpl(csvPath, addrBlockSize, nullptr), mapping_([&] {
        const size_t size = windowSize(*regFileHelper()->csvRegFile());
        return Mapping{mapWindow(filePath, size), size};
      }()) {
  GenericSigbusHandler::initialize();
}

MemoryWindow::~MemoryWindow() = default;

volatile uint32_t* MemoryWindow::place(const char* regName) const {
  const uint32_t address = regFileHelper()->regNameToAddr(regName);
  return reinterpret_cast<volatile uint32_t*>(static_cast<std::byte*>(mapping_.begin) + address);
}

uint32_t MemoryWindow::regRead(const char* regName) {
  return GenericSigbusHandler::guardedRead(place(regName));
}

void MemoryWindow::regWrite(const char* regName, uint32_t value) {
  GenericSigbusHandler::guardedWrite(place(regName), value);
}

}  // namespace Board
