#include "Smbus/Bus.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>

#include "Orb/Errno.h"

namespace Smbus {

namespace {

// The errno of the call, 0 when it succeeded; interruptions do not count.
template <class Call>
int errnoOf(Call call) {
  while (call() < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

int transfer(int fd, uint8_t readWrite, uint8_t command, i2c_smbus_data& data) {
  i2c_smbus_ioctl_data arguments{readWrite, command, I2C_SMBUS_I2C_BLOCK_DATA, &data};
  return errnoOf([&] { return ::ioctl(fd, I2C_SMBUS, &arguments); });
}

}  // namespace

Bus::Bus(const Orb::String& node) : node_(::open(node.c_str(), O_RDWR | O_CLOEXEC)) {
  if (!node_) Orb::throwErrno("cannot open I2C device {}", node);
}

int Bus::tryLock() {
  return errnoOf([&] { return ::flock(node_.get(), LOCK_EX | LOCK_NB); });
}

int Bus::lock() {
  return errnoOf([&] { return ::flock(node_.get(), LOCK_EX); });
}

void Bus::unlock() { ::flock(node_.get(), LOCK_UN); }

int Bus::deviceIs(uint8_t address) {
  if (device_ == address) return 0;
  const int error = errnoOf([&] { return ::ioctl(node_.get(), I2C_SLAVE, int{address}); });
  device_ = error == 0 ? address : -1;
  return error;
}

int Bus::writeBlock(uint8_t command, std::span<const uint8_t> bytes) {
  if (bytes.size() > I2C_SMBUS_BLOCK_MAX) return EINVAL;
  i2c_smbus_data data = {.block = {}};
  data.block[0] = static_cast<uint8_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), data.block + 1);
  return transfer(node_.get(), I2C_SMBUS_WRITE, command, data);
}

int Bus::readBlock(uint8_t command, std::span<uint8_t> bytes) {
  if (bytes.size() > I2C_SMBUS_BLOCK_MAX) return EINVAL;
  i2c_smbus_data data = {.block = {}};
  data.block[0] = static_cast<uint8_t>(bytes.size());
  const int error = transfer(node_.get(), I2C_SMBUS_READ, command, data);
  if (error != 0) return error;
  if (data.block[0] < bytes.size()) return EPROTO;
  std::copy_n(data.block + 1, bytes.size(), bytes.begin());
  return 0;
}

}  // namespace Smbus
