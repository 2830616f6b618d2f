#pragma once

// The memory window of a device that is not there: a temporary file of registers, looked at and
// changed from outside, which a test cuts short to let accesses end in bus errors.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "KoruRegFile/Utils.h"
#include "testing/TempFile.h"

namespace Testing {

class RegisterWindow {
 public:
  explicit RegisterWindow(size_t bytes) { sizeIs(bytes); }

  const char* path() const { return file_.path(); }

  uint32_t at(uint32_t address) const {
    uint32_t value = 0;
    check(::pread(fd_.fd(), &value, sizeof value, address) == sizeof value);
    return value;
  }
  void atIs(uint32_t address, uint32_t value) {
    check(::pwrite(fd_.fd(), &value, sizeof value, address) == sizeof value);
  }
  // Whole pages that are cut off are gone until the window grows again.
  void sizeIs(size_t bytes) { check(::ftruncate(fd_.fd(), static_cast<off_t>(bytes)) == 0); }

 private:
  static void check(bool good) {
    if (!good) throw std::runtime_error("the register window cannot be used");
  }

  const TempFile file_;
  const KoruRegFile::Utils::UnixFdRes fd_{::open(file_.path(), O_RDWR | O_CLOEXEC)};
};

}  // namespace Testing
