#include "board/devices/internal/SpiDevice.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "Orb/Errno.h"

namespace Board {

SpiDevice::SpiDevice(const std::string& node, unsigned mode, bool lowBitFirst, uint32_t speed)
    : node_(::open(node.c_str(), O_RDWR | O_CLOEXEC)), speed_(speed) {
  if (!node_) Orb::throwErrno("cannot open SPI device {}", node);
  // The rest, as how the chip is selected, is the device tree's.
  constexpr uint32_t ours = SPI_CPHA | SPI_CPOL | SPI_LSB_FIRST;
  uint32_t modeBits = 0;
  if (::ioctl(node_.get(), SPI_IOC_RD_MODE32, &modeBits) < 0) {
    Orb::throwErrno("cannot ask for the mode of SPI device {}", node);
  }
  modeBits = (modeBits & ~ours) | mode | (lowBitFirst ? SPI_LSB_FIRST : 0u);
  if (::ioctl(node_.get(), SPI_IOC_WR_MODE32, &modeBits) < 0) {
    Orb::throwErrno("cannot set mode {}{} of SPI device {}", mode,
                    lowBitFirst ? ", low bit first," : "", node);
  }
  uint8_t bitsPerWord = 8;
  if (::ioctl(node_.get(), SPI_IOC_WR_BITS_PER_WORD, &bitsPerWord) < 0) {
    Orb::throwErrno("cannot set words of 8 bits of SPI device {}", node);
  }
}

int SpiDevice::message(std::span<const uint8_t> out, std::span<uint8_t> in) const {
  spi_ioc_transfer transfer = {};
  transfer.tx_buf = reinterpret_cast<uintptr_t>(out.data());
  transfer.rx_buf = reinterpret_cast<uintptr_t>(in.data());
  transfer.len = static_cast<uint32_t>(out.size());
  transfer.speed_hz = speed_;
  while (true) {
    const int transferred = ::ioctl(node_.get(), SPI_IOC_MESSAGE(1), &transfer);
    if (transferred >= 0) return static_cast<size_t>(transferred) == out.size() ? 0 : EPROTO;
    if (errno != EINTR) return errno;
  }
}

}  // namespace Board
