// Chips on an SPI bus, which take writes only.

#include <cerrno>

#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

void readPlace(Transport& transport) { transport.device = transport.place; }

std::optional<Reach> reach(const Transport&) {
  return Reach{"SPI messages have addresses up to", 0xff, "SPI", 16};
}

std::string advice(const Transport&, int error) {
  switch (error) {
    case ENOENT:
      return "'ls /dev/spidev*' shows the devices there are; one appears when the driver spidev is "
             "bound to it";
    case ENODEV:
    case ESHUTDOWN:
      return "the device has gone: see whether its driver is still bound";
    default:
      return "";
  }
}

std::unique_ptr<BaseTransportMethodImpl> open(const Transport& transport, const Opening& opening) {
  return std::make_unique<SpiTransportMethodImpl>(
      Orb::make<Plat::Pax>(opening.name, transport.device), opening.registerMap.c_str(), nullptr);
}

}  // namespace

const KindRow spiKind = {
    .kind = TransportKind::spi,
    .name = "spi",
    .placeName = "DEV",
    .help = "SPI device, as in /dev/spidev0.0; takes writes only",
    .needsPlace = true,
    .addrBlockSize = SpiTransportMethodImpl::addrBlockSize,
    .writes = KindRow::Writes::endLater,
    .readPlace = readPlace,
    .reach = reach,
    .advice = advice,
    .open = open,
};

}  // namespace Board
