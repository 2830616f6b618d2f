#include <linux/spi/spidev.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <vector>

#include "simulator/model/Devices.h"
#include "simulator/model/Spi.h"

namespace Simulator {

namespace {

constexpr size_t longestTransfer = 4096;
constexpr uint32_t knownModes = SPI_CPHA | SPI_CPOL;

bool areBits(uint32_t bits) { return bits == 8 || bits == 16 || bits == 32; }

// Words of more than a byte lie in memory as the machine has them, and go out with the high byte
// first.
size_t wireIndex(size_t index, uint32_t bits) {
  if (std::endian::native == std::endian::big) return index;
  const size_t bytes = bits / 8;
  return index - index % bytes + (bytes - 1 - index % bytes);
}

uint32_t bitsOf(const NodeState& state, const spi_ioc_transfer& part) {
  return part.bits_per_word != 0 ? part.bits_per_word : state.bits;
}

// Why the transfers cannot be made: an errno, 0 when they can.
int whyNot(const NodeState& state, std::span<const spi_ioc_transfer> parts) {
  size_t total = 0;
  for (const spi_ioc_transfer& part : parts) {
    if (!areBits(bitsOf(state, part)) || part.len % (bitsOf(state, part) / 8) != 0) return EINVAL;
    total += part.len;
    if (total > longestTransfer) return EMSGSIZE;
  }
  return 0;
}

// Transfers of one chip select.
Outcome select(Image& image, size_t node, std::span<const spi_ioc_transfer> parts,
               std::string& line) {
  const NodeState& state = image.nodeStates[node];
  std::vector<uint8_t> bytes;
  for (const spi_ioc_transfer& part : parts) {
    const auto* out = reinterpret_cast<const uint8_t*>(part.tx_buf);
    for (size_t i = 0; i < part.len; ++i) {
      bytes.push_back(out ? out[wireIndex(i, bitsOf(state, part))] : 0);
    }
  }
  const Outcome outcome = exchange(image, node, bytes, line);
  if (outcome.error != 0) return outcome;
  size_t at = 0;
  for (const spi_ioc_transfer& part : parts) {
    auto* in = reinterpret_cast<uint8_t*>(part.rx_buf);
    for (size_t i = 0; in && i < part.len; ++i)
      in[wireIndex(i, bitsOf(state, part))] = bytes[at + i];
    at += part.len;
  }
  return outcome;
}

long message(Image& image, size_t node, std::span<const spi_ioc_transfer> parts,
             std::string& line) {
  if (const int error = whyNot(image.nodeStates[node], parts)) return -error;
  long total = 0;
  bool isShort = false;
  for (size_t begin = 0, i = 0; i < parts.size(); ++i) {
    total += static_cast<long>(parts[i].len);
    // In the last transfer this would keep the chip selected, which no chip here can tell.
    if (i + 1 < parts.size() && parts[i].cs_change == 0) continue;
    const Outcome outcome = select(image, node, parts.subspan(begin, i + 1 - begin), line);
    if (outcome.error != 0) return -outcome.error;
    isShort = isShort || outcome.isShort;
    begin = i + 1;
  }
  return isShort && total > 0 ? total - 1 : total;
}

template <class Type>
long setting(uint32_t& kept, void* argument, bool isWritten, bool (*isPossible)(uint32_t)) {
  if (!argument) return -EFAULT;
  Type& given = *static_cast<Type*>(argument);
  if (!isWritten) {
    given = static_cast<Type>(kept);
    return 0;
  }
  if (!isPossible(given)) return -EINVAL;
  kept = given;
  return 0;
}

bool isMode(uint32_t mode) { return (mode & ~knownModes) == 0; }
bool isZero(uint32_t value) { return value == 0; }
bool isAny(uint32_t) { return true; }

long word(uint32_t& kept, void* argument, bool isWritten) {
  uint32_t bits = kept;
  const long result = setting<uint8_t>(bits, argument, isWritten,
                                       [](uint32_t each) { return each == 0 || areBits(each); });
  kept = bits == 0 ? 8 : bits;
  return result;
}

}  // namespace

bool isSpiRequest(unsigned long request) { return _IOC_TYPE(request) == SPI_IOC_MAGIC; }

long spiControl(Image& image, size_t node, unsigned long request, void* argument,
                std::string& line) {
  NodeState& state = image.nodeStates[node];
  uint32_t none = 0;
  const bool isWritten = (_IOC_DIR(request) & _IOC_WRITE) != 0;
  switch (static_cast<uint32_t>(request)) {
    case SPI_IOC_RD_MODE:
    case SPI_IOC_WR_MODE:
      return setting<uint8_t>(state.mode, argument, isWritten, isMode);
    case SPI_IOC_RD_MODE32:
    case SPI_IOC_WR_MODE32:
      return setting<uint32_t>(state.mode, argument, isWritten, isMode);
    case SPI_IOC_RD_LSB_FIRST:
    case SPI_IOC_WR_LSB_FIRST:
      return setting<uint8_t>(none, argument, isWritten, isZero);
    case SPI_IOC_RD_BITS_PER_WORD:
    case SPI_IOC_WR_BITS_PER_WORD:
      return word(state.bits, argument, isWritten);
    case SPI_IOC_RD_MAX_SPEED_HZ:
    case SPI_IOC_WR_MAX_SPEED_HZ:
      return setting<uint32_t>(state.speed, argument, isWritten, isAny);
    default:
      break;
  }
  const size_t size = _IOC_SIZE(request);
  if (!isSpiRequest(request) || _IOC_NR(request) != 0 || !isWritten) return -ENOTTY;
  if (size % sizeof(spi_ioc_transfer) != 0) return -EINVAL;
  if (size == 0) return 0;
  if (!argument) return -EFAULT;
  const auto* parts = static_cast<const spi_ioc_transfer*>(argument);
  return message(image, node, std::span(parts, size / sizeof(spi_ioc_transfer)), line);
}

long spiRead(Image& image, size_t node, std::span<uint8_t> bytes, std::string& line) {
  spi_ioc_transfer part = {};
  part.rx_buf = reinterpret_cast<uintptr_t>(bytes.data());
  part.len = static_cast<uint32_t>(bytes.size());
  if (bytes.size() > longestTransfer) return -EMSGSIZE;
  return message(image, node, std::span(&part, 1), line);
}

long spiWrite(Image& image, size_t node, std::span<const uint8_t> bytes, std::string& line) {
  spi_ioc_transfer part = {};
  part.tx_buf = reinterpret_cast<uintptr_t>(bytes.data());
  part.len = static_cast<uint32_t>(bytes.size());
  if (bytes.size() > longestTransfer) return -EMSGSIZE;
  return message(image, node, std::span(&part, 1), line);
}

}  // namespace Simulator
