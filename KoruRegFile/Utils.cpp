#include "KoruRegFile/Utils.h"

#include <fmt/core.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "KoruRegFile/TransportError.h"

namespace KoruRegFile::Utils {

namespace {
constexpr useconds_t eagainPauseMicroseconds = 1000;
}

std::istream& getline_lea(std::istream& in, std::string& buffer, std::string_view& line) {
  if (!std::getline(in, buffer)) {
    line = std::string_view();
    return in;
  }
  line = buffer;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return in;
}

bool tokenize(const std::string_view& text, uint32_t& pos, std::string_view& token, char delim) {
  if (pos >= text.size()) return false;
  const size_t end = std::min(text.find(delim, pos), text.size());
  token = text.substr(pos, end - pos);
  pos = static_cast<uint32_t>(end + 1);
  return true;
}

int syscallAutoRetry(std::function<int()> call, bool retryOnEagain, bool retryOnEintr) {
  while (true) {
    const int result = call();
    if (result >= 0) return result;
    if (errno == EINTR) {
      if (!retryOnEintr) return result;
    } else if (errno == EAGAIN && retryOnEagain) {
      usleep(eagainPauseMicroseconds);
    } else {
      return result;
    }
  }
}

std::string errnoMsg() noexcept {
  const int number = errno;
  return fmt::format("{} ({})", std::strerror(number), number);
}

uint32_t strtouint32_checked(const char* text, bool& ok) {
  ok = false;
  errno = 0;
  char* end = nullptr;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE) return 0;
  if (value > std::numeric_limits<uint32_t>::max()) return 0;
  ok = true;
  return static_cast<uint32_t>(value);
}

UnixFdRes::UnixFdRes(UnixFdRes&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

UnixFdRes& UnixFdRes::operator=(UnixFdRes&& other) noexcept {
  if (this == &other) return *this;
  _destruct();
  fd_ = std::exchange(other.fd_, -1);
  return *this;
}

int UnixFdRes::_destruct() noexcept { return fd_ < 0 ? fd_ : ::close(std::exchange(fd_, -1)); }

UnixFlockRes::UnixFlockRes(int fd, int mode) {
  if (fd < 0) throw std::runtime_error("Invalid fd");
  if ((mode & (LOCK_SH | LOCK_EX)) == 0) throw std::runtime_error("Unsupported lock mode");
  if ((mode & LOCK_UN) != 0) throw std::runtime_error("Cannot unlock flock on constructor");
  if (syscallAutoRetry([fd, mode] { return ::flock(fd, mode); }, true, true) < 0) {
    const int error = errno;
    throw TransportError(fmt::format("flock error: {}", std::strerror(error)), error);
  }
  fd_ = fd;
}

UnixFlockRes::~UnixFlockRes() {
  if (fd_ >= 0) ::flock(fd_, LOCK_UN);
}

}  // namespace KoruRegFile::Utils
