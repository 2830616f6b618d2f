// Transactions of a chip's own format: whole messages where the adapter takes them, and otherwise
// the SMBus transactions that put the same bytes on the bus.

#include <fmt/format.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Smbus/Bus.h"

namespace Smbus {

namespace {

constexpr size_t longestBlock = I2C_SMBUS_BLOCK_MAX;

template <class Call>
int errnoOf(Call call) {
  while (call() < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// The check byte of SMBus: polynomial x^8 + x^2 + x + 1, over all bytes on the bus.
uint8_t withByte(uint8_t crc, uint8_t byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) {
    crc = static_cast<uint8_t>((crc << 1) ^ ((crc & 0x80) != 0 ? 0x07 : 0));
  }
  return crc;
}

uint8_t withBytes(uint8_t crc, std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes) crc = withByte(crc, byte);
  return crc;
}

// The SMBus transaction that sends `out` and then receives `in`; its first byte is the command.
struct SmbusForm {
  uint32_t size;
  unsigned long function;
  bool takesPec;
};

std::optional<SmbusForm> formOf(size_t out, size_t in) {
  if (in == 0) {
    if (out == 1) return SmbusForm{I2C_SMBUS_BYTE, I2C_FUNC_SMBUS_WRITE_BYTE, true};
    if (out == 2) return SmbusForm{I2C_SMBUS_BYTE_DATA, I2C_FUNC_SMBUS_WRITE_BYTE_DATA, true};
    if (out == 3) return SmbusForm{I2C_SMBUS_WORD_DATA, I2C_FUNC_SMBUS_WRITE_WORD_DATA, true};
    if (out > 3 && out <= longestBlock + 1)
      return SmbusForm{I2C_SMBUS_I2C_BLOCK_DATA, I2C_FUNC_SMBUS_WRITE_I2C_BLOCK, false};
    return std::nullopt;
  }
  if (out == 0 && in == 1) return SmbusForm{I2C_SMBUS_BYTE, I2C_FUNC_SMBUS_READ_BYTE, true};
  if (out != 1) return std::nullopt;
  if (in == 1) return SmbusForm{I2C_SMBUS_BYTE_DATA, I2C_FUNC_SMBUS_READ_BYTE_DATA, true};
  if (in == 2) return SmbusForm{I2C_SMBUS_WORD_DATA, I2C_FUNC_SMBUS_READ_WORD_DATA, true};
  if (in <= longestBlock)
    return SmbusForm{I2C_SMBUS_I2C_BLOCK_DATA, I2C_FUNC_SMBUS_READ_I2C_BLOCK, false};
  return std::nullopt;
}

// Bytes as the kernel's union has them for that transaction, and back.
void put(i2c_smbus_data& data, const SmbusForm& form, std::span<const uint8_t> bytes) {
  if (form.size == I2C_SMBUS_BYTE_DATA) {
    data.byte = bytes[0];
  } else if (form.size == I2C_SMBUS_WORD_DATA) {
    data.word = static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
  } else if (form.size == I2C_SMBUS_I2C_BLOCK_DATA) {
    data.block[0] = static_cast<uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), data.block + 1);
  }
}

int take(const i2c_smbus_data& data, const SmbusForm& form, std::span<uint8_t> bytes) {
  if (form.size == I2C_SMBUS_WORD_DATA) {
    bytes[0] = static_cast<uint8_t>(data.word);
    bytes[1] = static_cast<uint8_t>(data.word >> 8);
  } else if (form.size == I2C_SMBUS_I2C_BLOCK_DATA) {
    if (data.block[0] < bytes.size()) return EPROTO;
    std::copy_n(data.block + 1, bytes.size(), bytes.begin());
  } else {
    bytes[0] = data.byte;
  }
  return 0;
}

}  // namespace

unsigned long Bus::functions() {
  if (!functions_) {
    unsigned long found = 0;
    const int error = errnoOf([&] { return ::ioctl(node_.get(), I2C_FUNCS, &found); });
    if (error != 0) return 0;
    functions_ = found;
  }
  return *functions_;
}

int Bus::quickWrite() {
  i2c_smbus_ioctl_data arguments{I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr};
  return errnoOf([&] { return ::ioctl(node_.get(), I2C_SMBUS, &arguments); });
}

int Bus::exchange(const Exchange& exchange) {
  if (exchange.out.size() > longestExchange || exchange.in.size() > longestExchange) return EINVAL;
  return (functions() & I2C_FUNC_I2C) != 0 ? exchangeMessages(exchange) : exchangeSmbus(exchange);
}

// The kernel leaves the check byte of plain messages to us.
int Bus::exchangeMessages(const Exchange& exchange) const {
  std::array<uint8_t, longestExchange + 1> out;
  std::array<uint8_t, longestExchange + 1> in;
  std::copy(exchange.out.begin(), exchange.out.end(), out.begin());
  const auto address = static_cast<uint8_t>(device_ << 1);
  const bool writes = !exchange.out.empty() || exchange.in.empty();
  uint8_t crc = writes ? withBytes(withByte(0, address), exchange.out) : uint8_t{0};
  const bool pecOut = exchange.pec && exchange.in.empty();
  const bool pecIn = exchange.pec && !pecOut;
  if (pecOut) out[exchange.out.size()] = crc;
  i2c_msg messages[2];
  unsigned count = 0;
  const auto device = static_cast<uint16_t>(device_);
  if (writes)
    messages[count++] = {device, 0, static_cast<uint16_t>(exchange.out.size() + pecOut),
                         out.data()};
  if (!exchange.in.empty())
    messages[count++] = {device, I2C_M_RD, static_cast<uint16_t>(exchange.in.size() + pecIn),
                         in.data()};
  i2c_rdwr_ioctl_data arguments{messages, count};
  int made = 0;
  const int error = errnoOf([&] { return made = ::ioctl(node_.get(), I2C_RDWR, &arguments); });
  if (error != 0) return error;
  if (static_cast<unsigned>(made) != count) return EPROTO;
  const std::span<const uint8_t> received(in.data(), exchange.in.size());
  if (pecIn) {
    crc = withBytes(withByte(crc, static_cast<uint8_t>(address | 1)), received);
    if (in[exchange.in.size()] != crc) return EBADMSG;
  }
  std::copy(received.begin(), received.end(), exchange.in.begin());
  return 0;
}

int Bus::exchangeSmbus(const Exchange& exchange) {
  const auto form = formOf(exchange.out.size(), exchange.in.size());
  if (!form || (functions() & form->function) == 0) return EOPNOTSUPP;
  if (exchange.pec && (!form->takesPec || (functions() & I2C_FUNC_SMBUS_PEC) == 0))
    return EOPNOTSUPP;
  if (exchange.pec != pec_) {
    const unsigned long pec = exchange.pec ? 1 : 0;
    const int error = errnoOf([&] { return ::ioctl(node_.get(), I2C_PEC, pec); });
    if (error != 0) return error;
    pec_ = exchange.pec;
  }
  i2c_smbus_data data = {.block = {}};
  const bool reads = !exchange.in.empty();
  const uint8_t command = exchange.out.empty() ? uint8_t{0} : exchange.out[0];
  if (reads)
    data.block[0] = static_cast<uint8_t>(exchange.in.size());
  else
    put(data, *form, exchange.out.subspan(1));
  i2c_smbus_ioctl_data arguments{reads ? uint8_t{I2C_SMBUS_READ} : uint8_t{I2C_SMBUS_WRITE},
                                 command, form->size, &data};
  const int error = errnoOf([&] { return ::ioctl(node_.get(), I2C_SMBUS, &arguments); });
  if (error != 0) return error;
  return reads ? take(data, *form, exchange.in) : 0;
}

std::string Bus::whyNoExchange(size_t out, size_t in, bool pec) {
  if ((functions() & I2C_FUNC_I2C) != 0) return {};
  const auto form = formOf(out, in);
  const std::string what = in == 0 ? fmt::format("send {} bytes", out)
                                   : fmt::format("send {} bytes and then receive {}", out, in);
  if (!form || (functions() & form->function) == 0) {
    return fmt::format("the adapter takes SMBus transactions only, and none of its own can {}",
                       what);
  }
  if (pec && !form->takesPec) {
    return fmt::format(
        "the adapter takes SMBus transactions only, and the one that can {} has no "
        "packet error check",
        what);
  }
  if (pec && (functions() & I2C_FUNC_SMBUS_PEC) == 0) {
    return "the adapter cannot do packet error checks";
  }
  return {};
}

}  // namespace Smbus
