// Chips on an SPI bus: in the library's own messages, which are written only, or in a format of
// their own.

#include <cerrno>

#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "board/devices/SpiFormatTransport.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

void readPlace(Transport& transport, std::string_view place) {
  requireNoRest(place);
  transport.device = place;
}

uint8_t blockSize(const Transport&) { return SpiTransportMethodImpl::addrBlockSize; }

void readFormat(Transport& transport, const FormatSettings& settings) {
  if (!settings.empty()) transport.format = SpiFormat::of(settings);
}

std::optional<Reach> reach(const Transport&) {
  return Reach{"SPI messages have addresses up to",
               0xff,
               "an SPI message",
               16,
               9,
               ",value_bits=8",
               "such messages are writes only; settings behind the place say how to read"};
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
  if (transport.format) {
    return std::make_unique<SpiFormatTransport>(
        transport.device, std::static_pointer_cast<const SpiFormat>(transport.format),
        opening.map());
  }
  return std::make_unique<SpiTransportMethodImpl>(
      Orb::make<Plat::Pax>(opening.name, transport.device), opening.registerMap.c_str(),
      opening.registers);
}

}  // namespace

const KindRow spiKind = {
    .name = "spi",
    .placeName = "DEV",
    .help =
        "SPI device, as in /dev/spidev0.0; takes writes only, unless settings behind it say how "
        "to read",
    .needsPlace = true,
    .writes = KindRow::Writes::endLater,
    .forms = {},
    .addrBlockSize = blockSize,
    .readPlace = readPlace,
    .readFormat = readFormat,
    .reach = reach,
    .advice = advice,
    .open = open,
};

}  // namespace Board
