#include "KoruRegFile/MockTransportMethodImpl.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <sstream>
#include <string>

#include "KoruRegFile/Utils.h"

namespace KoruRegFile {

namespace {

constexpr mode_t newFileMode = 0666;  // less the umask, as for any file of a user

// The value file, or a negative descriptor: anything but a regular file counts as absent. Opening
// does not block, whatever somebody has put there.
Utils::UnixFdRes openValueFile(int flags) {
  Utils::UnixFdRes file(::open(MockTransportMethodImpl::valueFilePath,
                               flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, newFileMode));
  struct stat status;
  if (file.fd() >= 0 && (::fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file._destruct();
  }
  return file;
}

std::string readWhole(int fd) {
  std::string text;
  char part[4096];
  while (true) {
    const ssize_t count = ::read(fd, part, sizeof part);
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

void writeWhole(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<size_t>(count));
    } else if (errno != EINTR) {
      return;
    }
  }
}

}  // namespace

MockTransportMethodImpl::MockTransportMethodImpl(
    const char* csvPath, const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(csvPath, addrBlockSize, regFile) {
  seed();
}

uint32_t MockTransportMethodImpl::regRead(const char* regName) {
  return _regRWCommon(false, regName, 0);
}

void MockTransportMethodImpl::regWrite(const char* regName, uint32_t value) {
  _regRWCommon(true, regName, value);
}

uint32_t MockTransportMethodImpl::_regRWCommon(bool isWrite, const char* regName, uint32_t value) {
  uint32_t& stored = valueByAddress_[regFileHelper()->regNameToAddr(regName)];
  if (isWrite) stored = value;
  save();
  return stored;
}

void MockTransportMethodImpl::seed() {
  const auto file = openValueFile(O_RDONLY);
  if (file.fd() < 0) return;
  std::istringstream in(readWhole(file.fd()));
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    const auto address = static_cast<uint32_t>(std::stoul(line.substr(0, comma)));
    const auto value = static_cast<uint32_t>(std::stoul(line.substr(comma + 1)));
    valueByAddress_.emplace(address, value);
  }
}

void MockTransportMethodImpl::save() const {
  const auto file = openValueFile(O_WRONLY | O_CREAT);
  if (file.fd() < 0 || ::ftruncate(file.fd(), 0) != 0) return;
  std::string text = "Address, Value\n";
  for (const auto& [address, value] : valueByAddress_) {
    fmt::format_to(std::back_inserter(text), "{},{}\n", address, value);
  }
  writeWhole(file.fd(), text);
}

}  // namespace KoruRegFile
