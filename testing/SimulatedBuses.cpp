#include "testing/SimulatedBuses.h"

#include <endian.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <sstream>

namespace Testing::detail {

namespace {

constexpr unsigned highestSlave = 0x7f;

template <class... Arguments>
int systemCall(long number, Arguments... arguments) {
  return static_cast<int>(::syscall(number, arguments...));
}

// " dirty" unless all of the bytes are zero.
const char* dirt(std::span<const uint8_t> unused) {
  return std::ranges::any_of(unused, [](uint8_t byte) { return byte != 0; }) ? " dirty" : "";
}

uint32_t bigEndian(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// Carries out a transaction on the chip. Returns an errno, 0 for success.
int carryOut(Chip& chip, const i2c_smbus_ioctl_data& arguments) {
  i2c_smbus_data& data = *arguments.data;
  const bool isRead = arguments.read_write == I2C_SMBUS_READ;
  if (arguments.size == I2C_SMBUS_WORD_DATA && chip.addressBits == 8) {
    uint32_t& stored = chip.registers[arguments.command];
    if (isRead) data.word = static_cast<uint16_t>(stored);
    if (!isRead) stored = data.word;
    return 0;
  }
  if (arguments.size != I2C_SMBUS_I2C_BLOCK_DATA || chip.addressBits != 16) return EOPNOTSUPP;
  if (isRead) {
    if (chip.pointer >> 8 != arguments.command) return EIO;
    const uint32_t value = htobe32(chip.registers[chip.pointer]);
    std::memcpy(data.block + 1, &value, sizeof value);
    return 0;
  }
  chip.pointer = static_cast<uint16_t>(arguments.command << 8 | data.block[1]);
  if (data.block[0] == 5) chip.registers[chip.pointer] = bigEndian(data.block + 2);
  return 0;
}

std::string describe(unsigned slave, const i2c_smbus_ioctl_data& arguments) {
  const i2c_smbus_data& data = *arguments.data;
  const bool isRead = arguments.read_write == I2C_SMBUS_READ;
  const std::span<const uint8_t> bytes(data.block);
  if (arguments.size == I2C_SMBUS_WORD_DATA) {
    return isRead ? fmt::format("{:02x} R {:02x}{}", slave, arguments.command, dirt(bytes))
                  : fmt::format("{:02x} W {:02x} {:04x}{}", slave, arguments.command, data.word,
                                dirt(bytes.subspan(2)));
  }
  if (arguments.size != I2C_SMBUS_I2C_BLOCK_DATA || bytes[0] > I2C_SMBUS_BLOCK_MAX) {
    return fmt::format("{:02x} ? {}", slave, arguments.size);
  }
  if (isRead) {
    return fmt::format("{:02x} r {:02x} +{}{}", slave, arguments.command, bytes[0],
                       dirt(bytes.subspan(1)));
  }
  return fmt::format("{:02x} w {:02x} {:02x}{}", slave, arguments.command,
                     fmt::join(bytes.subspan(1, bytes[0]), " "), dirt(bytes.subspan(1 + bytes[0])));
}

}  // namespace

SimulatedBuses& SimulatedBuses::instance() {
  static SimulatedBuses* buses = new SimulatedBuses;
  return *buses;
}

SimulatedBuses::SimulatedBuses() {
  const char* directory = std::getenv("KORU_BUS_SIMULATOR");
  if (!directory) return;
  directory_ = directory;
  readScript();
}

void SimulatedBuses::readScript() {
  std::ifstream script(directory_ + "/buses");
  std::string line, kind, path;
  while (std::getline(script, line)) {
    std::istringstream words(line);
    words >> kind >> std::setbase(0);
    unsigned chip = 0, bits = 0;
    if (kind == "fault") {
      words >> faultFrom >> faultError >> faultCount;
    } else if (kind == "i2c" && words >> path >> chip >> bits) {
      nodeIs(path).chips[chip].addressBits = bits;
    } else if (kind == "spi" && words >> path) {
      nodeIs(path).isSpi = true;
    }
  }
  std::ifstream registers(directory_ + "/registers");
  registers >> std::setbase(0);
  unsigned chip = 0;
  uint32_t address = 0, value = 0;
  while (registers >> path >> chip >> address >> value) {
    nodeIs(path).chips[chip].registers[address] = value;
  }
}

void SimulatedBuses::save() const {
  if (directory_.empty()) return;
  std::ofstream out(directory_ + "/registers");
  for (const auto& [path, node] : nodes) {
    for (const auto& [address, chip] : node.chips) {
      for (const auto& [reg, value] : chip.registers) {
        out << fmt::format("{} {:#x} {:#x} {:#x}\n", path, address, reg, value);
      }
    }
  }
}

bool SimulatedBuses::isSilent() const {
  return silent || (!directory_.empty() && std::filesystem::exists(directory_ + "/silent"));
}

Node& SimulatedBuses::nodeIs(const std::string& path) {
  Node& node = nodes[path];
  if (node.backing >= 0) return node;
  if (directory_.empty()) {
    node.backing = ::memfd_create("bus", MFD_CLOEXEC);
  } else {  // processes that share the directory share the locks
    const std::string file = directory_ + "/" + std::filesystem::path(path).filename().string();
    node.backing =
        systemCall(SYS_openat, AT_FDCWD, file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  }
  return node;
}

void SimulatedBuses::clear() {
  for (const auto& [path, node] : nodes) systemCall(SYS_close, node.backing);
  nodes.clear();
  ledger.clear();
  busy = false;
  shortReads = false;
  silent = false;
  faultCount = 0;
}

bool SimulatedBuses::faultIsDue() {
  ++calls;
  return calls >= faultFrom && calls - faultFrom < faultCount;
}

int SimulatedBuses::finish(std::string entry, int error) {
  if (error != 0) entry += fmt::format(" ! {}", error);
  if (!directory_.empty()) std::ofstream(directory_ + "/ledger", std::ios::app) << entry << '\n';
  ledger.push_back(std::move(entry));
  errno = error;
  return error == 0 ? 0 : -1;
}

int SimulatedBuses::open(const std::string& path, int flags) {
  const std::string entry = "open " + path;
  if (faultIsDue()) return finish(entry, faultError);
  const std::string backing = fmt::format("/proc/self/fd/{}", nodes.at(path).backing);
  const int fd = systemCall(SYS_openat, AT_FDCWD, backing.c_str(), flags);
  if (fd >= 0) descriptors[fd] = {path};
  return finish(entry, fd < 0 ? errno : 0) < 0 ? -1 : fd;
}

int SimulatedBuses::close(int fd) {
  if (descriptors.erase(fd) != 0) finish("close", 0);
  return systemCall(SYS_close, fd);
}

int SimulatedBuses::ioctl(int fd, unsigned long request, void* argument) {
  OpenNode& open = descriptors.at(fd);
  if (nodes[open.path].isSpi) {
    if (_IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0) {
      return message(argument, _IOC_SIZE(request) / sizeof(spi_ioc_transfer));
    }
    return finish(fmt::format("spi setting {}", _IOC_NR(request)), faultIsDue() ? faultError : 0);
  }
  if (request == I2C_SLAVE) {
    const auto slave = reinterpret_cast<uintptr_t>(argument);
    const int error = faultIsDue() ? faultError : slave > highestSlave ? EINVAL : 0;
    if (error == 0) open.slave = static_cast<unsigned>(slave);
    return finish(fmt::format("slave {:02x}", slave), error);
  }
  if (request == I2C_FUNCS) {
    *static_cast<unsigned long*>(argument) = I2C_FUNC_SMBUS_WORD_DATA | I2C_FUNC_SMBUS_I2C_BLOCK;
    return 0;
  }
  if (request == I2C_SMBUS) return transfer(open, *static_cast<i2c_smbus_ioctl_data*>(argument));
  return finish(fmt::format("ioctl {:x}", request), ENOTTY);
}

int SimulatedBuses::transfer(OpenNode& open, i2c_smbus_ioctl_data& arguments) {
  std::string entry = describe(open.slave, arguments);
  if (faultIsDue()) return finish(std::move(entry), faultError);
  if (busy) return finish(std::move(entry), EAGAIN);
  auto& chips = nodes[open.path].chips;
  const auto chip = chips.find(open.slave);
  const int error = chip == chips.end() || isSilent() ? ENXIO : carryOut(chip->second, arguments);
  const bool isBlockRead =
      arguments.read_write == I2C_SMBUS_READ && arguments.size == I2C_SMBUS_I2C_BLOCK_DATA;
  if (shortReads && isBlockRead && error == 0) --arguments.data->block[0];
  if (arguments.read_write == I2C_SMBUS_WRITE) save();
  return finish(std::move(entry), error);
}

int SimulatedBuses::message(const void* transfers, size_t count) {
  std::string entry = "spi";
  int length = 0;
  for (const auto& part : std::span(static_cast<const spi_ioc_transfer*>(transfers), count)) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(part.tx_buf);
    entry += fmt::format(" {:02x}", fmt::join(std::span(bytes, part.len), " "));
    if (part.delay_usecs != 0) entry += fmt::format("~{}", part.delay_usecs);
    length += static_cast<int>(part.len);
  }
  const bool isFaulty = faultIsDue();
  const int error = isFaulty ? faultError : isSilent() ? ESHUTDOWN : 0;
  return finish(std::move(entry), error) < 0 ? -1 : length - isFaulty;
}

int SimulatedBuses::flock(int fd, int mode) {
  if ((mode & LOCK_UN) != 0) {
    finish("unlock", 0);
    return systemCall(SYS_flock, fd, mode);
  }
  const char* const entry = (mode & LOCK_EX) != 0 ? "lock" : "lock shared";
  if (faultIsDue()) return finish(entry, faultError);
  const int result = systemCall(SYS_flock, fd, mode);
  return finish(entry, result < 0 ? errno : 0);
}

}  // namespace Testing::detail
