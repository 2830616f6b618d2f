// Chips on an I2C bus: reached directly, or through the relay.

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/RegisterBits.h"
#include "board/devices/I2cFormatTransport.h"
#include "board/devices/RelayFormatTransport.h"
#include "board/devices/SharedRelay.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

constexpr uint32_t highestAddress = 0x7f;

// What carries a chip's registers in one way or another. The flavours are the library's own.
constexpr Form directForms[] = {
    {"block", "flavour=block", "16 bits of address, 32 of value (also without a form)"},
    {"word", "flavour=word", "8 bits of address, 16 of value, low byte first"},
    {"byte", "address_bits=8,value_bits=8", "8 bits of address, 8 of value"},
    {"word-high-first", "address_bits=8,value_bits=16,value_order=high-first",
     "8 bits of address, 16 of value"},
    {"word-low-first", "address_bits=8,value_bits=16,value_order=low-first",
     "the same, low byte first"},
    {"high-first", "address_bits=8,value_order=high-first",
     "8 bits of address, each register as wide as it is, high byte first"},
    {"low-first", "address_bits=8,value_order=low-first", "the same, low byte first"},
    {"byte16", "address_bits=16,value_bits=8", "16 bits of address, 8 of value"},
};
// (A relay has one flavour only.)
constexpr std::span<const Form> relayedForms(directForms + 2, std::size(directForms) - 2);

// "/dev/i2c-1:0x50", taken apart.
void readChip(Transport& transport, std::string_view chip) {
  const size_t colon = chip.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == chip.size() ||
      chip.find(',', colon) != std::string_view::npos) {
    throw std::invalid_argument(
        fmt::format("'{}' is no chip on a bus (write /dev/i2c-1:0x50, or with a form behind it, as "
                    "in /dev/i2c-1:0x50,byte; there are {}; or KEY=VALUE)",
                    transport.place, formNames(*transport.kind)));
  }
  transport.device = chip.substr(0, colon);
  transport.address =
      static_cast<uint32_t>(parseNumber(std::string(chip.substr(colon + 1)), highestAddress));
}

void readDirectFormat(Transport& transport, const FormatSettings& settings) {
  if (const auto flavour = settings.find("flavour"); flavour != settings.end()) {
    for (const auto& [key, value] : settings) {
      if (key == "flavour") continue;
      throw FormatError(key, fmt::format("cannot be said: ',{}' is a form of its own and takes no "
                                         "settings",
                                         flavour->second));
    }
    const SettingsReader reader(settings, {"flavour"});
    transport.words = reader.word("flavour", {"block", "word"}) == 1;
  } else if (!settings.empty()) {
    transport.format = I2cFormat::of(settings);
  }
}

void readRelayedFormat(Transport& transport, const FormatSettings& settings) {
  if (!settings.empty()) transport.format = I2cFormat::of(settings);
}

uint8_t directBlockSize(const Transport&) { return 1; }

uint8_t relayedBlockSize(const Transport& transport) {
  return transport.format ? RelayFormatTransport::addrBlockSize
                          : I2cTransportRelayImpl::addrBlockSize;
}

std::optional<Reach> directReach(const Transport& transport) {
  if (transport.words) {
    return Reach{"words on an I2C bus have addresses up to", 0xff, "a word", 16, 9, ",byte"};
  }
  return Reach{"blocks on an I2C bus have addresses up to", 0xffff, "a block", 32};
}

std::optional<Reach> relayedReach(const Transport&) {
  return Reach{"the relay has addresses up to", 0xffff, "a block", 32};
}

std::shared_ptr<const I2cFormat> formatOf(const Transport& transport) {
  return std::static_pointer_cast<const I2cFormat>(transport.format);
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
          bus, transport.words || transport.format ? "" : ", with ,word there are words");
    case ENOTTY:
      return transport.device + " is no I2C bus";
    default:
      return "";
  }
}

std::unique_ptr<BaseTransportMethodImpl> openDirect(const Transport& transport,
                                                    const Opening& opening) {
  if (transport.format) {
    return std::make_unique<I2cFormatTransport>(transport.device,
                                                static_cast<uint8_t>(transport.address),
                                                formatOf(transport), opening.map(), opening.busy);
  }
  return std::make_unique<I2cTransportMethodImpl>(
      transport.device.c_str(), static_cast<int>(transport.address), opening.registerMap.c_str(),
      transport.words ? I2cFlavour::dataWord : I2cFlavour::dataBlock, opening.registers,
      opening.busy);
}

std::unique_ptr<BaseTransportMethodImpl> openRelayed(const Transport& transport,
                                                     const Opening& opening) {
  const auto relay = sharedRelay(transport.device);
  if (transport.format) {
    return std::make_unique<RelayFormatTransport>(relay, static_cast<uint8_t>(transport.address),
                                                  formatOf(transport), opening.map());
  }
  return std::make_unique<I2cTransportRelayImpl>(relay, transport.address,
                                                 opening.registerMap.c_str(), opening.registers);
}

}  // namespace

const KindRow i2cKind = {
    .name = "i2c",
    .placeName = "DEV:ADDR",
    .help = "I2C chip, as in /dev/i2c-1:0x50 or /dev/i2c-1:0x50,byte",
    .needsPlace = true,
    .writes = KindRow::Writes::waitForBus,
    .forms = directForms,
    .addrBlockSize = directBlockSize,
    .readPlace = readChip,
    .readFormat = readDirectFormat,
    .reach = directReach,
    .advice = i2cAdvice,
    .open = openDirect,
};

const KindRow relayKind = {
    .name = "relay",
    .placeName = "DEV:ADDR",
    .help = "I2C chip, likewise, accessed through an agent's queue",
    .needsPlace = true,
    .writes = KindRow::Writes::endLater,
    .forms = relayedForms,
    .addrBlockSize = relayedBlockSize,
    .readPlace = readChip,
    .readFormat = readRelayedFormat,
    .reach = relayedReach,
    .advice = i2cAdvice,
    .open = openRelayed,
};

}  // namespace Board
