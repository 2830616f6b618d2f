#include "HalSpiAccel/Accel.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <stdexcept>

#include "Orb/Errno.h"

namespace HalSpiAccel {

const Orb::EntityType& Accel::entityType() {
  static const auto type =
      Orb::EntityTypeOf<Accel>("HalSpiAccel::Accel").attribute("pax", &Accel::pax);
  return type;
}

Accel::Accel(const Orb::Ptr<const Plat::Pax>& pax) : pax_(pax) {
  if (!pax) throw std::runtime_error("there is no SPI accessor");
  device_ = Orb::Descriptor(::open(pax->devicePath().c_str(), O_RDWR | O_CLOEXEC));
  if (!device_) Orb::throwErrno("cannot open SPI device {}", pax->devicePath());
}

// Bytes that follow each other without a pause share a transfer.
int Accel::message(std::span<const CmdData> bytes) const {
  if (bytes.size() > mostBytes) return EINVAL;
  uint8_t data[mostBytes];
  spi_ioc_transfer transfers[mostBytes] = {};
  size_t count = 0;
  bool paused = true;
  for (size_t i = 0; i < bytes.size(); ++i) {
    data[i] = bytes[i].data;
    if (paused) {
      transfers[count].tx_buf = reinterpret_cast<uintptr_t>(data + i);
      transfers[count].speed_hz = pax_->speedHz();
      ++count;
    }
    ++transfers[count - 1].len;
    transfers[count - 1].delay_usecs = bytes[i].pauseMicroseconds;
    paused = bytes[i].pauseMicroseconds != 0;
  }
  const auto request = _IOC(_IOC_WRITE, SPI_IOC_MAGIC, 0, count * sizeof(spi_ioc_transfer));
  while (true) {
    const int sent = ::ioctl(device_.get(), request, transfers);
    if (sent == static_cast<int>(bytes.size())) return 0;
    if (sent >= 0) return EIO;
    if (errno != EINTR) return errno;
  }
}

}  // namespace HalSpiAccel
