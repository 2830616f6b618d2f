// Chips on an I2C bus: reached directly, or through the relay.

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>

#include "Hardware/Relay.h"
#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/RegisterBits.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

constexpr uint32_t highestAddress = 0x7f;

bool removeEnd(std::string_view& text, std::string_view end) {
  if (!text.ends_with(end)) return false;
  text.remove_suffix(end.size());
  return true;
}

// "/dev/i2c-1:0x50", taken apart.
void readChip(Transport& transport, std::string_view chip, const char* suffix) {
  const size_t colon = chip.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == chip.size() ||
      chip.find(',', colon) != std::string_view::npos) {
    throw std::invalid_argument(
        fmt::format("'{}' is no chip on a bus (write /dev/i2c-1:0x50{})", transport.place, suffix));
  }
  transport.device = chip.substr(0, colon);
  transport.address =
      static_cast<uint32_t>(parseNumber(std::string(chip.substr(colon + 1)), highestAddress));
}

void readDirect(Transport& transport) {
  std::string_view chip = transport.place;
  transport.words = removeEnd(chip, ",word");
  if (!transport.words) removeEnd(chip, ",block");
  readChip(transport, chip, ", with ,word behind it for words");
}

void readRelayed(Transport& transport) { readChip(transport, transport.place, ""); }

std::optional<Reach> directReach(const Transport& transport) {
  if (transport.words) {
    return Reach{"words on an I2C bus have addresses up to", 0xff, "a word", 16};
  }
  return Reach{"blocks on an I2C bus have addresses up to", 0xffff, "a block", 32};
}

std::optional<Reach> relayedReach(const Transport&) {
  return Reach{"the relay has addresses up to", 0xffff, "a block", 32};
}

// The number of the bus, for the commands that ask about it.
std::string busNumber(const std::string& device) {
  const size_t dash = device.rfind("i2c-");
  const std::string number = dash == std::string::npos ? "" : device.substr(dash + 4);
  const bool isNumber = !number.empty() && number.find_first_not_of("0123456789") == number.npos;
  return isNumber ? number : "BUS";
}

std::string i2cAdvice(const Transport& transport, int error) {
  const uint32_t address = transport.address;
  const std::string bus = busNumber(transport.device);
  switch (error) {
    case ENOENT:
      return "there is no such bus: 'i2cdetect -l' lists those there are, 'modprobe i2c-dev' makes "
             "their nodes";
    case EBUSY:
      return fmt::format(
          "a kernel driver uses the address: 'readlink /sys/bus/i2c/devices/{}-{:04x}/driver' "
          "names it, writing {}-{:04x} to its file 'unbind' takes it off",
          bus, address, bus, address);
    case ENXIO:
    case ENODEV:
    case EREMOTEIO:
    case ETIMEDOUT:
    case EIO:
      return fmt::format(
          "nothing acknowledges: check the address {:#04x} and the chip's power; 'i2cdetect -y {}' "
          "shows who answers",
          address, bus);
    case EOPNOTSUPP:
    case EINVAL:
      return fmt::format(
          "the adapter cannot do this kind of transaction: 'i2cdetect -F {}' shows which ones it "
          "can{}",
          bus, transport.words ? "" : ", with ,word there are words");
    case ENOTTY:
      return transport.device + " is no I2C bus";
    default:
      return "";
  }
}

std::unique_ptr<BaseTransportMethodImpl> openDirect(const Transport& transport,
                                                    const Opening& opening) {
  return std::make_unique<I2cTransportMethodImpl>(
      transport.device.c_str(), static_cast<int>(transport.address), opening.registerMap.c_str(),
      transport.words ? I2cFlavour::dataWord : I2cFlavour::dataBlock, nullptr, opening.busy);
}

std::unique_ptr<BaseTransportMethodImpl> openRelayed(const Transport& transport,
                                                     const Opening& opening) {
  return std::make_unique<I2cTransportRelayImpl>(
      Hardware::relayFactory(opening.name, transport.device), transport.address,
      opening.registerMap.c_str(), nullptr);
}

}  // namespace

// Both flavours take the map's numbers as they are.
const KindRow i2cKind = {
    .kind = TransportKind::i2c,
    .name = "i2c",
    .placeName = "DEV:ADDR",
    .help = "I2C chip, as in /dev/i2c-1:0x50 or /dev/i2c-1:0x50,word",
    .needsPlace = true,
    .addrBlockSize = 1,
    .writes = KindRow::Writes::waitForBus,
    .readPlace = readDirect,
    .reach = directReach,
    .advice = i2cAdvice,
    .open = openDirect,
};

const KindRow relayKind = {
    .kind = TransportKind::relay,
    .name = "relay",
    .placeName = "DEV:ADDR",
    .help = "I2C chip, likewise, accessed through an agent's queue",
    .needsPlace = true,
    .addrBlockSize = I2cTransportRelayImpl::addrBlockSize,
    .writes = KindRow::Writes::endLater,
    .readPlace = readRelayed,
    .reach = relayedReach,
    .advice = i2cAdvice,
    .open = openRelayed,
};

}  // namespace Board
