#include "system/Transport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <boost/regex.hpp>
#include <stdexcept>
#include <vector>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/MockTransportMethodImpl.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"

namespace System {

using namespace KoruRegFile;

namespace {

struct Kind {
  TransportKind kind;
  const char* name;
  uint8_t addrBlockSize;
  bool needsPlace;
};

// A window of the agent's own has its registers where the mock has them; both flavours of I2C take
// the map's numbers as they are.
constexpr std::array kinds = {
    Kind{TransportKind::mock, "mock", MockTransportMethodImpl::addrBlockSize, false},
    Kind{TransportKind::memory, "memory", MockTransportMethodImpl::addrBlockSize, false},
    Kind{TransportKind::i2c, "i2c", 1, true},
    Kind{TransportKind::relay, "relay", I2cTransportRelayImpl::addrBlockSize, true},
    Kind{TransportKind::pci, "pci", PciTransportMethodImpl::addrBlockSize, true},
    Kind{TransportKind::spi, "spi", SpiTransportMethodImpl::addrBlockSize, true},
};

const Kind& find(TransportKind kind) {
  return *std::find_if(kinds.begin(), kinds.end(), [&](const Kind& k) { return k.kind == kind; });
}

constexpr uint32_t highestI2cAddress = 0x7f;

void readChipOnBus(Transport& transport) {
  boost::smatch part;
  const bool isRelay = transport.kind == TransportKind::relay;
  const boost::regex form(isRelay ? "(.+):([^:,]+)()" : "(.+):([^:,]+)(,word|,block)?");
  if (!boost::regex_match(transport.place, part, form)) {
    throw std::invalid_argument(fmt::format("'{}' is no chip on a bus (write /dev/i2c-1:0x50{})",
                                            transport.place,
                                            isRelay ? "" : ", with ,word behind it for words"));
  }
  transport.device = part[1];
  transport.address = static_cast<uint32_t>(parseNumber(part[2].str(), highestI2cAddress));
  transport.words = part[3] == ",word";
}

// A device's place on the bus stands for a file of the system; anything else is a file itself.
std::string pciFile(const std::string& place) {
  boost::smatch part;
  const boost::regex form("([0-9a-f]{4}:)?([0-9a-f]{2}:[0-9a-f]{2}\\.[0-7])(?:/([0-5]))?");
  if (!boost::regex_match(place, part, form)) return place;
  return fmt::format("/sys/bus/pci/devices/{}{}/resource{}",
                     part[1].matched ? part[1].str() : "0000:", part[2].str(),
                     part[3].matched ? part[3].str() : "0");
}

// What a transport carries of a register.
struct Reach {
  const char* what;
  uint32_t lastAddress;
  unsigned width;
};

// Beyond these addresses the transports refuse, or silently access another register.
std::optional<Reach> reach(const Transport& transport) {
  switch (transport.kind) {
    case TransportKind::memory:
      return Reach{"a memory window ends at", (1u << 28) - 1, 32};
    case TransportKind::i2c:
      return transport.words ? Reach{"words on an I2C bus have addresses up to", 0xff, 16}
                             : Reach{"blocks on an I2C bus have addresses up to", 0xffff, 32};
    case TransportKind::relay:
      return Reach{"the access agent has addresses up to", 0xffff, 32};
    case TransportKind::spi:
      return Reach{"SPI messages have addresses up to", 0xff, 16};
    case TransportKind::mock:
    case TransportKind::pci:
      break;
  }
  return std::nullopt;
}

}  // namespace

Transport Transport::at(TransportKind kind, const std::string& place) {
  Transport transport;
  transport.kind = kind;
  transport.place = place;
  if (find(kind).needsPlace && place.empty()) throw std::invalid_argument("it has to say where");
  if (kind == TransportKind::i2c || kind == TransportKind::relay) readChipOnBus(transport);
  if (kind == TransportKind::pci) transport.device = pciFile(place);
  if (kind == TransportKind::spi) transport.device = place;
  return transport;
}

const char* Transport::name() const { return find(kind).name; }

std::string Transport::text() const {
  return place.empty() ? name() : fmt::format("{} {}", name(), place);
}

uint8_t Transport::addrBlockSize() const { return find(kind).addrBlockSize; }

std::optional<std::string> Transport::whyNot(const Register& reg) const {
  const auto most = reach(*this);
  if (!most) return std::nullopt;
  if (reg.address > most->lastAddress) {
    return fmt::format("{} {:#x}, its address is {:#x}", most->what, most->lastAddress,
                       reg.address);
  }
  if (reg.width > most->width) {
    return fmt::format("it has {} bits, and {} carries {} at once", reg.width,
                       kind == TransportKind::spi ? "SPI" : "a word", most->width);
  }
  return std::nullopt;
}

std::optional<TransportKind> transportKind(std::string_view name) {
  const auto found =
      std::find_if(kinds.begin(), kinds.end(), [&](const Kind& k) { return k.name == name; });
  return found == kinds.end() ? std::nullopt : std::optional(found->kind);
}

std::string transportKinds() {
  std::vector<std::string_view> names;
  for (const Kind& kind : kinds) names.emplace_back(kind.name);
  return fmt::format("{}", fmt::join(names, ", "));
}

bool needsPlace(TransportKind kind) { return find(kind).needsPlace; }

}  // namespace System
