#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "simulator/model/Devices.h"
#include "simulator/model/I2c.h"

namespace Simulator {

namespace {

constexpr uint32_t highestAddress = 0x7f;
constexpr size_t longestMessage = 8192;
constexpr uint32_t pecBit = 1 << 10;

constexpr unsigned long smbusFunctions = I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE |
                                         I2C_FUNC_SMBUS_BYTE_DATA | I2C_FUNC_SMBUS_WORD_DATA |
                                         I2C_FUNC_SMBUS_I2C_BLOCK | I2C_FUNC_SMBUS_PEC;

// An SMBus call as bytes: what is written, and how many are read behind it.
class SmbusCall {
 public:
  SmbusCall(const I2cOpen& open, const i2c_smbus_ioctl_data& call)
      : address_(open.address), size_(call.size), data_(call.data) {
    isRead_ = call.read_write == I2C_SMBUS_READ;
    hasPec_ = open.usesPec && size_ != I2C_SMBUS_QUICK && size_ != I2C_SMBUS_I2C_BLOCK_DATA;
    if (size_ != I2C_SMBUS_QUICK && !(isRead_ && size_ == I2C_SMBUS_BYTE)) put(call.command);
    if (isRead_) {
      reads_ = payload() + (hasPec_ ? 1 : 0);
    } else {
      putPayload();
    }
  }

  Outcome carryOut(Image& image, size_t node, std::string& line) {
    std::array<Message, 2> messages;
    size_t count = 0;
    const bool isQuick = size_ == I2C_SMBUS_QUICK;
    if (written_ > 0 || (isQuick && !isRead_)) {
      messages[count++] = {address_, false, std::span(out_).first(written_)};
    }
    if (isRead_) messages[count++] = {address_, true, std::span(in_).first(reads_)};
    if (hasPec_ && !isRead_) put(checkOf(messages[0]));
    if (hasPec_ && !isRead_) messages[0].bytes = std::span(out_).first(written_);
    Outcome outcome = transfer(image, node, std::span(messages).first(count), line);
    if (outcome.isShort && size_ != I2C_SMBUS_I2C_BLOCK_DATA) outcome.error = EPROTO;
    if (outcome.error == 0 && isRead_ && hasPec_ && !isRight(std::span(messages).first(count))) {
      outcome.error = EBADMSG;
    }
    if (outcome.error == 0 && isRead_) take(outcome.isShort);
    return outcome;
  }

 private:
  void put(uint8_t byte) { out_[written_++] = byte; }

  size_t payload() const {
    switch (size_) {
      case I2C_SMBUS_BYTE:
      case I2C_SMBUS_BYTE_DATA:
        return 1;
      case I2C_SMBUS_WORD_DATA:
        return 2;
      case I2C_SMBUS_I2C_BLOCK_DATA:
        return data_->block[0];
      default:
        return 0;
    }
  }

  void putPayload() {
    if (size_ == I2C_SMBUS_BYTE_DATA) put(data_->byte);
    if (size_ == I2C_SMBUS_WORD_DATA) {  // the low byte first
      put(static_cast<uint8_t>(data_->word));
      put(static_cast<uint8_t>(data_->word >> 8));
    }
    if (size_ == I2C_SMBUS_I2C_BLOCK_DATA) {
      for (size_t i = 1; i <= data_->block[0]; ++i) put(data_->block[i]);
    }
  }

  static uint8_t checkOf(const Message& message, uint8_t before = 0) {
    uint8_t check =
        pecOf(before, static_cast<uint8_t>(message.address << 1 | (message.isRead ? 1 : 0)));
    for (const uint8_t byte : message.bytes) check = pecOf(check, byte);
    return check;
  }

  // With its own check byte behind, the check of everything is 0.
  static bool isRight(std::span<const Message> messages) {
    uint8_t check = 0;
    for (const Message& message : messages) check = checkOf(message, check);
    return check == 0;
  }

  void take(bool isShort) {
    if (size_ == I2C_SMBUS_BYTE || size_ == I2C_SMBUS_BYTE_DATA) data_->byte = in_[0];
    if (size_ == I2C_SMBUS_WORD_DATA) {
      data_->word = static_cast<uint16_t>(in_[0] | in_[1] << 8);
    }
    if (size_ == I2C_SMBUS_I2C_BLOCK_DATA) {
      if (isShort && data_->block[0] > 0) --data_->block[0];
      std::copy_n(in_.begin(), data_->block[0], data_->block + 1);
    }
  }

  const uint32_t address_;
  const uint32_t size_;
  i2c_smbus_data* const data_;
  bool isRead_ = false;
  bool hasPec_ = false;
  std::array<uint8_t, I2C_SMBUS_BLOCK_MAX + 2> out_{};
  size_t written_ = 0;
  std::array<uint8_t, I2C_SMBUS_BLOCK_MAX + 1> in_{};
  size_t reads_ = 0;
};

long smbus(Image& image, size_t node, const I2cOpen& open, i2c_smbus_ioctl_data* given,
           std::string& line) {
  if (!given) return -EFAULT;
  i2c_smbus_ioctl_data call = *given;
  if (call.read_write > 1 || call.size > I2C_SMBUS_I2C_BLOCK_DATA) return -EINVAL;
  if (call.size == I2C_SMBUS_I2C_BLOCK_BROKEN) {  // reads by the old number are of 32 bytes
    call.size = I2C_SMBUS_I2C_BLOCK_DATA;
    if (call.data && call.read_write == I2C_SMBUS_READ) call.data->block[0] = I2C_SMBUS_BLOCK_MAX;
  }
  const bool isBlock = call.size == I2C_SMBUS_I2C_BLOCK_DATA;
  if (call.size > I2C_SMBUS_WORD_DATA && !isBlock) return -EOPNOTSUPP;
  const bool hasNoData = call.size == I2C_SMBUS_QUICK ||
                         (call.size == I2C_SMBUS_BYTE && call.read_write == I2C_SMBUS_WRITE);
  if (!call.data && !hasNoData) return -EINVAL;
  if (isBlock && (call.data->block[0] == 0 || call.data->block[0] > I2C_SMBUS_BLOCK_MAX)) {
    return -EINVAL;
  }
  return -SmbusCall(open, call).carryOut(image, node, line).error;
}

long messages(Image& image, size_t node, const i2c_rdwr_ioctl_data* call, std::string& line) {
  if (image.nodes[node].takesMessages == 0) return -EOPNOTSUPP;
  if (!call || (!call->msgs && call->nmsgs > 0)) return -EFAULT;
  if (call->nmsgs == 0 || call->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return -EINVAL;
  std::vector<Message> list;
  for (const i2c_msg& each : std::span(call->msgs, call->nmsgs)) {
    if (each.len > longestMessage) return -EINVAL;
    if ((each.flags & ~I2C_M_RD) != 0) return -EOPNOTSUPP;
    if (!each.buf && each.len > 0) return -EFAULT;
    if (each.addr > highestAddress) return -EINVAL;
    list.push_back({each.addr, (each.flags & I2C_M_RD) != 0, {each.buf, each.len}});
  }
  const Outcome outcome = transfer(image, node, list, line);
  if (outcome.error != 0) return -outcome.error;
  return static_cast<long>(call->nmsgs) - (outcome.isShort ? 1 : 0);
}

long addressIs(Image& image, size_t node, I2cOpen& open, unsigned long address, bool isForced) {
  if (address > highestAddress) return -EINVAL;
  const int chip = image.chipAt(node, static_cast<uint32_t>(address));
  if (!isForced && chip >= 0 && image.chips[static_cast<size_t>(chip)].driver != 0) return -EBUSY;
  open.address = static_cast<uint32_t>(address);
  return 0;
}

long oneMessage(Image& image, size_t node, const Message& message, std::string& line) {
  if (image.nodes[node].takesMessages == 0) return -EOPNOTSUPP;
  const Outcome outcome = transfer(image, node, std::span(&message, 1), line);
  if (outcome.error != 0) return -outcome.error;
  const auto count = static_cast<long>(message.bytes.size());
  return outcome.isShort && count > 0 ? count - 1 : count;
}

}  // namespace

I2cOpen I2cOpen::of(int64_t offset) {
  const auto bits = static_cast<uint32_t>(offset);
  return {bits & highestAddress, (bits & pecBit) != 0};
}

int64_t I2cOpen::offset() const { return address | (usesPec ? pecBit : 0); }

bool isI2cRequest(unsigned long request) { return (request & 0xffffff00) == 0x0700; }

long i2cControl(Image& image, size_t node, I2cOpen& open, unsigned long request, void* argument,
                std::string& line) {
  const auto number = reinterpret_cast<unsigned long>(argument);
  switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
      return addressIs(image, node, open, number, request == I2C_SLAVE_FORCE);
    case I2C_PEC:
      open.usesPec = number != 0;
      return 0;
    case I2C_TENBIT:
      return number == 0 ? 0 : -EINVAL;
    case I2C_RETRIES:
    case I2C_TIMEOUT:
      return 0;
    case I2C_FUNCS: {
      if (!argument) return -EFAULT;
      const bool takesMessages = image.nodes[node].takesMessages != 0;
      *static_cast<unsigned long*>(argument) = smbusFunctions | (takesMessages ? I2C_FUNC_I2C : 0);
      return 0;
    }
    case I2C_SMBUS:
      return smbus(image, node, open, static_cast<i2c_smbus_ioctl_data*>(argument), line);
    case I2C_RDWR:
      return messages(image, node, static_cast<const i2c_rdwr_ioctl_data*>(argument), line);
    default:
      return -ENOTTY;
  }
}

long i2cRead(Image& image, size_t node, const I2cOpen& open, std::span<uint8_t> bytes,
             std::string& line) {
  bytes = bytes.first(std::min(bytes.size(), longestMessage));
  return oneMessage(image, node, {open.address, true, bytes}, line);
}

long i2cWrite(Image& image, size_t node, const I2cOpen& open, std::span<const uint8_t> bytes,
              std::string& line) {
  std::vector<uint8_t> copy(
      bytes.begin(), bytes.begin() + static_cast<long>(std::min(bytes.size(), longestMessage)));
  return oneMessage(image, node, {open.address, false, copy}, line);
}

}  // namespace Simulator
