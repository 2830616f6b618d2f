#pragma once

// Registers behind an I2C address, through the kernel's i2c-dev node and its SMBus transactions.
// One instance owns one open node, bound to one address; its flavour chooses the shape of the
// transactions. One thread at a time. Processes that share a bus may use it side by side: a block
// transfer holds an exclusive flock on the node, a word transfer is a single transaction.

#include <cstdint>
#include <functional>
#include <memory>
#include <tuple>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/Utils.h"

union i2c_smbus_data;  // the kernel's

namespace KoruRegFile {

// How a register is addressed and how wide its value is, on the bus.
enum class I2cFlavour : uint32_t {
  dataBlock = 1,  // 16 bits of address, high byte first; 32 bits of value, big-endian
  dataWord = 2,   // 8 bits of address; 16 bits of value in SMBus word order
};

// One access each, over a descriptor that is bound to the chip's address. Throw TransportError that
// names the access, the address and the reason, and std::runtime_error for an address that the
// flavour does not have; a block read that brings fewer bytes than asked for
// has failed with EPROTO.
namespace i2cflavspec {

using Hardware::KoruRegFile::HardwareRegister;

// Address phase and data phase, under the lock. Of a register narrower than its maximum the kept
// bytes end up in the high part of the result: 16 of 32 bits, read as b1 b2 b3 b4, are b1 b2 00 00.
KORU_EXPORT uint32_t readDataBlock(int fd, const HardwareRegister& reg);
// One transaction, under the lock. The value is sent whole, whatever the register's width.
KORU_EXPORT void writeDataBlock(int fd, const HardwareRegister& reg, uint32_t value);

KORU_EXPORT uint32_t readDataWord(int fd, const HardwareRegister& reg);
// Sends the low 16 bits of `value`.
KORU_EXPORT void writeDataWord(int fd, const HardwareRegister& reg, uint32_t value);

// One SMBus transaction of the kind `size` (the kernel's number); `readWrite` is 1 to read and 0 to
// write `data`. Addresses above 255 are refused before there is any traffic.
KORU_EXPORT void dataWordAccess(int fd, uint32_t address, uint8_t readWrite, uint32_t size,
                                i2c_smbus_data& data);

}  // namespace i2cflavspec

// What an access does about a bus that is locked by another process or busy.
enum class I2cBusy {
  wait,    // waits, however long that takes
  refuse,  // throws a TransportError with EAGAIN; what holds up the loop is tried again from it
};

class KORU_EXPORT I2cTransportMethodImpl : public BaseTransportMethodImpl {
 public:
  // Opens the node at `devicePath` and binds it to `peripheralAddress` (7 bits); `name` is the path
  // of the register map, as for every transport. Throws std::out_of_range for an unknown flavour,
  // before anything is opened, and std::runtime_error when the node cannot be opened or the kernel
  // refuses the address.
  I2cTransportMethodImpl(const char* devicePath, int peripheralAddress, const char* name,
                         I2cFlavour flavour,
                         const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile,
                         I2cBusy busy = I2cBusy::wait);

  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;

 private:
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;
  using ReadFn = std::function<uint32_t(int fd, const HardwareRegister& reg)>;
  using WriteFn = std::function<void(int fd, const HardwareRegister& reg, uint32_t value)>;
  using FlavourRow = std::tuple<unsigned char, ReadFn, WriteFn>;
  struct FlavourTable;

  I2cTransportMethodImpl(const char* devicePath, int peripheralAddress, const char* name,
                         const FlavourRow& row,
                         const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);
  int checkedFd() const;

  std::unique_ptr<Utils::UnixFdRes> i2cFd_;
  const ReadFn readFn_;
  const WriteFn writeFn_;
};

}  // namespace KoruRegFile
