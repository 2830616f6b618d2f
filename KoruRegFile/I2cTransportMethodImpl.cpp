#include "KoruRegFile/I2cTransportMethodImpl.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <initializer_list>
#include <stdexcept>
#include <unordered_map>

#include "Orb/Assert.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

Orb::TraceHandle trace("I2cTransportMethodImpl");

constexpr uint8_t lowByte(uint32_t value) { return static_cast<uint8_t>(value); }
constexpr uint8_t highByte(uint32_t value) { return static_cast<uint8_t>(value >> 8); }

using Hardware::KoruRegFile::HardwareRegister;

// The text, which ends with the errno.
template <class... Args>
[[noreturn]] void throwErrno(fmt::format_string<const Args&..., const std::string&> text,
                             const Args&... args) {
  const int error = errno;
  const std::string reason = Utils::errnoMsg();
  throw TransportError(fmt::format(text, args..., reason), error);
}

constexpr uint8_t blockValueBytes = 4;
constexpr uint32_t highestWordAddress = 255;

// One transaction; negative, with errno set, when it failed.
int transfer(int fd, I2cBusy busy, uint8_t readWrite, uint8_t command, uint32_t size,
             i2c_smbus_data& data) {
  struct {
    int fd;
    i2c_smbus_ioctl_data arguments;
  } call{fd, {readWrite, command, size, &data}};
  // One captured reference keeps the call within std::function's own storage.
  return Utils::syscallAutoRetry([&call] { return ::ioctl(call.fd, I2C_SMBUS, &call.arguments); },
                                 busy == I2cBusy::wait, true);
}

// The exclusive lock by which processes that share a bus keep out of each other's blocks.
class BusLock {
 public:
  BusLock(int fd, I2cBusy busy) : lock_(acquired(fd, busy), LOCK_EX) {}

 private:
  // A lock that is held already is taken again without waiting.
  static int acquired(int fd, I2cBusy busy) {
    const auto tryLock = [fd] { return ::flock(fd, LOCK_EX | LOCK_NB); };
    if (busy == I2cBusy::refuse && Utils::syscallAutoRetry(tryLock, false, true) < 0 &&
        errno == EWOULDBLOCK) {
      throw TransportError("another process holds the lock of the bus", EAGAIN);
    }
    return fd;
  }

  const Utils::UnixFlockRes lock_;
};

// All of it: an empty initialiser would promise no more than the first member.
i2c_smbus_data zeroed() { return {.block = {}}; }

// A data union that is zero but for a block of these bytes.
i2c_smbus_data blockOf(std::initializer_list<uint8_t> bytes) {
  i2c_smbus_data data = zeroed();
  data.block[0] = static_cast<uint8_t>(bytes.size());
  size_t i = 0;
  for (const uint8_t byte : bytes) data.block[++i] = byte;
  return data;
}

uint32_t readBlock(int fd, const HardwareRegister& reg, I2cBusy busy) {
  const BusLock lock(fd, busy);
  const uint8_t command = highByte(reg.address);
  i2c_smbus_data address = blockOf({lowByte(reg.address)});
  if (transfer(fd, busy, I2C_SMBUS_WRITE, command, I2C_SMBUS_I2C_BLOCK_DATA, address) < 0) {
    throwErrno("Error writing address {:#x} on FD {}: {}", reg.address, fd);
  }
  i2c_smbus_data data = zeroed();
  data.block[0] = blockValueBytes;
  int result = transfer(fd, busy, I2C_SMBUS_READ, command, I2C_SMBUS_I2C_BLOCK_DATA, data);
  if (result >= 0 && data.block[0] < blockValueBytes) {
    errno = EPROTO;
    result = -1;
  }
  if (result < 0) throwErrno("Error reading from address {:#x} on FD {}: {}", reg.address, fd);
  // Masked in the order of arrival and reversed only then: chips keep narrow values in front.
  const auto* bytes = data.block + 1;
  const uint32_t word = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
                        uint32_t{bytes[3]} << 24;
  const uint32_t unused = (reg.maximumWidth - reg.width) % 32;
  return __builtin_bswap32(word << unused >> unused);
}

void writeBlock(int fd, const HardwareRegister& reg, uint32_t value, I2cBusy busy) {
  const BusLock lock(fd, busy);
  i2c_smbus_data data = blockOf({lowByte(reg.address), lowByte(value >> 24), lowByte(value >> 16),
                                 lowByte(value >> 8), lowByte(value)});
  if (transfer(fd, busy, I2C_SMBUS_WRITE, highByte(reg.address), I2C_SMBUS_I2C_BLOCK_DATA, data) <
      0) {
    throwErrno("Error writing value {:#x} to address {:#x} on FD {}: {}", value, reg.address, fd);
  }
}

void accessWord(int fd, uint32_t address, uint8_t readWrite, uint32_t size, i2c_smbus_data& data,
                I2cBusy busy) {
  if (address > highestWordAddress) {
    throw std::runtime_error(fmt::format("Register address {:#x} is out of range!", address));
  }
  if (transfer(fd, busy, readWrite, lowByte(address), size, data) < 0) {
    throwErrno("I2C word {} from address {:#x} failed: {}", readWrite != 0 ? "read" : "write",
               address);
  }
}

uint32_t readWord(int fd, const HardwareRegister& reg, I2cBusy busy) {
  i2c_smbus_data data = zeroed();
  accessWord(fd, reg.address, I2C_SMBUS_READ, I2C_SMBUS_WORD_DATA, data, busy);
  return data.word;
}

void writeWord(int fd, const HardwareRegister& reg, uint32_t value, I2cBusy busy) {
  i2c_smbus_data data = zeroed();
  data.word = static_cast<uint16_t>(value);
  accessWord(fd, reg.address, I2C_SMBUS_WRITE, I2C_SMBUS_WORD_DATA, data, busy);
}

}  // namespace

namespace i2cflavspec {

uint32_t readDataBlock(int fd, const HardwareRegister& reg) {
  return readBlock(fd, reg, I2cBusy::wait);
}

void writeDataBlock(int fd, const HardwareRegister& reg, uint32_t value) {
  writeBlock(fd, reg, value, I2cBusy::wait);
}

void dataWordAccess(int fd, uint32_t address, uint8_t readWrite, uint32_t size,
                    i2c_smbus_data& data) {
  accessWord(fd, address, readWrite, size, data, I2cBusy::wait);
}

uint32_t readDataWord(int fd, const HardwareRegister& reg) {
  return readWord(fd, reg, I2cBusy::wait);
}

void writeDataWord(int fd, const HardwareRegister& reg, uint32_t value) {
  writeWord(fd, reg, value, I2cBusy::wait);
}

}  // namespace i2cflavspec

struct I2cTransportMethodImpl::FlavourTable {
  static const std::unordered_map<I2cFlavour, FlavourRow> rows;
  static const std::unordered_map<I2cFlavour, FlavourRow> refusingRows;
  // The text is the same with every standard library.
  static const FlavourRow& at(I2cFlavour flavour, I2cBusy busy) {
    const auto& table = busy == I2cBusy::wait ? rows : refusingRows;
    const auto found = table.find(flavour);
    if (found == table.end()) throw std::out_of_range("_Map_base::at");
    return found->second;
  }
  static uint32_t readBlockOrRefuse(int fd, const HardwareRegister& reg) {
    return readBlock(fd, reg, I2cBusy::refuse);
  }
  static void writeBlockOrRefuse(int fd, const HardwareRegister& reg, uint32_t value) {
    writeBlock(fd, reg, value, I2cBusy::refuse);
  }
  static uint32_t readWordOrRefuse(int fd, const HardwareRegister& reg) {
    return readWord(fd, reg, I2cBusy::refuse);
  }
  static void writeWordOrRefuse(int fd, const HardwareRegister& reg, uint32_t value) {
    writeWord(fd, reg, value, I2cBusy::refuse);
  }
};

const std::unordered_map<I2cFlavour, I2cTransportMethodImpl::FlavourRow>
    I2cTransportMethodImpl::FlavourTable::rows = {
        {I2cFlavour::dataBlock, {1, i2cflavspec::readDataBlock, i2cflavspec::writeDataBlock}},
        {I2cFlavour::dataWord, {1, i2cflavspec::readDataWord, i2cflavspec::writeDataWord}},
};

const std::unordered_map<I2cFlavour, I2cTransportMethodImpl::FlavourRow>
    I2cTransportMethodImpl::FlavourTable::refusingRows = {
        {I2cFlavour::dataBlock, {1, readBlockOrRefuse, writeBlockOrRefuse}},
        {I2cFlavour::dataWord, {1, readWordOrRefuse, writeWordOrRefuse}},
};

I2cTransportMethodImpl::I2cTransportMethodImpl(
    const char* devicePath, int peripheralAddress, const char* name, I2cFlavour flavour,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile, I2cBusy busy)
    : I2cTransportMethodImpl(devicePath, peripheralAddress, name, FlavourTable::at(flavour, busy),
                             regFile) {}

I2cTransportMethodImpl::I2cTransportMethodImpl(
    const char* devicePath, int peripheralAddress, const char* name, const FlavourRow& row,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile)
    : BaseTransportMethodImpl(name, std::get<0>(row), regFile),
      i2cFd_(std::make_unique<Utils::UnixFdRes>(-1)),
      readFn_(std::get<ReadFn>(row)),
      writeFn_(std::get<WriteFn>(row)) {
  Utils::UnixFdRes device(::open(devicePath, O_RDWR));
  if (device.fd() < 0) throwErrno("Error opening I2C device {}: {}", devicePath);
  // A child of the agent would keep the node open, and its lock held.
  ::fcntl(device.fd(), F_SETFD, FD_CLOEXEC);
  const auto setAddress = [fd = device.fd(), peripheralAddress] {
    return ::ioctl(fd, I2C_SLAVE, peripheralAddress);
  };
  if (Utils::syscallAutoRetry(setAddress, true, true) < 0) {
    throwErrno("Error setting peripheral address to {:#x}: {}", peripheralAddress);
  }
  *i2cFd_ = std::move(device);
  ORB_TRACE(trace, 0, "Opened i2c with fd {}", i2cFd_->fd());
}

int I2cTransportMethodImpl::checkedFd() const {
  const int i2cFd = i2cFd_->fd();
  ORB_ASSERT(i2cFd >= 0, "i2cFd >= 0", "the I2C device is not open");
  return i2cFd;
}

uint32_t I2cTransportMethodImpl::regRead(const char* regName) {
  const auto reg = regFileHelper()->findRegisterByName(regName);
  return readFn_(checkedFd(), reg);
}

void I2cTransportMethodImpl::regWrite(const char* regName, uint32_t value) {
  const auto reg = regFileHelper()->findRegisterByName(regName);
  writeFn_(checkedFd(), reg, value);
}

}  // namespace KoruRegFile
