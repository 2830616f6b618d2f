#include "korureg/Transport.h"

#include <fmt/format.h>

#include <boost/regex.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "Orb/EventLoop.h"
#include "Plat/PciPaxImpl.h"

namespace korureg {

using namespace KoruRegFile;

namespace {

constexpr uint32_t highestI2cAddress = 0x7f;

// The errno behind a failure: that of a system error, or the number in brackets that the text of a
// failed access ends with. 0 when there is none.
int errnoOf(const std::exception& e) {
  if (const auto* system = dynamic_cast<const std::system_error*>(&e)) {
    return system->code().value();
  }
  boost::cmatch found;
  return boost::regex_search(e.what(), found, boost::regex("\\((\\d+)\\)$"))
             ? std::atoi(found[1].str().c_str())
             : 0;
}

template <class Condition>
void serveUntil(Condition condition) {
  while (!condition()) Orb::eventLoop().runFor(std::chrono::seconds(1));
}

// The agent's own words on what went wrong.
[[noreturn]] void throwLateFailure(const BaseTransportMethodImpl& transport) {
  const auto* relayed = dynamic_cast<const I2cTransportRelayImpl*>(&transport);
  throw std::runtime_error(relayed ? std::string(relayed->relay()->lastFailure()) : "failed");
}

}  // namespace

std::optional<Transport> Transport::chosen(const Options& options) {
  const std::pair<const char*, bool> given[] = {{"--mock", options.mock},
                                                {"--i2c", !options.i2c.empty()},
                                                {"--relay", !options.relay.empty()},
                                                {"--pci", !options.pci.empty()},
                                                {"--spi", !options.spi.empty()}};
  std::vector<std::string> names;
  for (const auto& [name, isGiven] : given) {
    if (isGiven) names.emplace_back(name);
  }
  if (names.empty()) return {};
  if (names.size() > 1) {
    throw UsageError(fmt::format("the chip is reached one way only: {} or {}", names[0], names[1]));
  }
  if (options.mock) return Transport("mock", "");
  if (!options.i2c.empty()) return i2c("i2c", options.i2c);
  if (!options.relay.empty()) return i2c("relay", options.relay);
  if (!options.pci.empty()) return pci(options.pci);
  return Transport("spi", options.spi);
}

Transport Transport::i2c(const char* name, const std::string& text) {
  boost::smatch part;
  const bool isRelay = name == std::string("relay");
  const boost::regex form(isRelay ? "(.+):([^:,]+)()" : "(.+):([^:,]+)(,word|,block)?");
  if (!boost::regex_match(text, part, form)) {
    throw UsageError(fmt::format("--{}: '{}' is no chip on a bus (write /dev/i2c-1:0x50{})", name,
                                 text, isRelay ? "" : ", with ,word behind it for words"));
  }
  Transport transport(name, part[1]);
  try {
    transport.address_ = static_cast<uint32_t>(parseNumber(part[2].str(), highestI2cAddress));
  } catch (const std::invalid_argument& e) {
    throw UsageError(fmt::format("--{}: {}", name, e.what()));
  }
  transport.words_ = part[3] == ",word";
  return transport;
}

// A device's place on the bus stands for a file of the system; anything else is a file itself.
Transport Transport::pci(const std::string& text) {
  boost::smatch part;
  const boost::regex place("([0-9a-f]{4}:)?([0-9a-f]{2}:[0-9a-f]{2}\\.[0-7])(?:/([0-5]))?");
  if (!boost::regex_match(text, part, place)) return {"pci", text};
  return {"pci", fmt::format("/sys/bus/pci/devices/{}{}/resource{}",
                             part[1].matched ? part[1].str() : "0000:", part[2].str(),
                             part[3].matched ? part[3].str() : "0")};
}

Orb::Ptr<BaseTransportDescriptor> Transport::descriptor() const {
  if (name_ == "i2c") {
    const auto flavour =
        words_ ? TransportFlavour::I2cSmbusDataWord : TransportFlavour::I2cSmbusDataBlock;
    return i2cTransportDescriptorFactory(flavour, device_, address_);
  }
  if (name_ == "relay") {
    return i2cRelayTransportDescriptorFactory(Hardware::relayFactory(name_, device_), address_);
  }
  if (name_ == "pci") return pciTransportDescriptorFactory(Plat::pciPaxImplFactory(name_, device_));
  if (name_ == "spi") return spiTransportDescriptorFactory(Orb::make<Plat::Pax>(name_, device_));
  return mockTransportDescriptorFactory();
}

std::string Transport::explained(const std::exception& e) const {
  if (dynamic_cast<const Keel::GenericSigbusHandler::SigbusException*>(&e)) {
    return fmt::format("{}: the device behind {} has gone, or the file has been cut short",
                       e.what(), device_);
  }
  const std::string what = advice(errnoOf(e));
  return what.empty() ? e.what() : fmt::format("{}; {}", e.what(), what);
}

std::string Transport::advice(int error) const {
  if (error == 0 || name_ == "mock") return "";
  if (error == EACCES || error == EPERM) {
    return fmt::format("run as root, or as a member of the group that 'ls -lL {}' shows", device_);
  }
  if (name_ == "pci") return pciAdvice(error);
  if (name_ != "spi") return i2cAdvice(error);
  if (error == ENOENT) {
    return "'ls /dev/spidev*' shows the devices there are; one appears when the driver spidev is "
           "bound to it";
  }
  return error == ENODEV || error == ESHUTDOWN ? "the device has gone: see whether its driver is "
                                                 "still bound"
                                               : "";
}

std::string Transport::i2cAdvice(int error) const {
  boost::smatch number;
  const bool isNumbered = boost::regex_search(device_, number, boost::regex("i2c-(\\d+)$"));
  const std::string bus = isNumbered ? number[1].str() : "BUS";
  switch (error) {
    case ENOENT:
      return "there is no such bus: 'i2cdetect -l' lists those there are, 'modprobe i2c-dev' makes "
             "their nodes";
    case EBUSY:
      return fmt::format(
          "a kernel driver uses the address: 'readlink /sys/bus/i2c/devices/{}-{:04x}/driver' "
          "names "
          "it, writing {}-{:04x} to its file 'unbind' takes it off",
          bus, address_, bus, address_);
    case ENXIO:
    case ENODEV:
    case EREMOTEIO:
    case ETIMEDOUT:
    case EIO:
      return fmt::format(
          "nothing acknowledges: check the address {:#04x} and the chip's power; 'i2cdetect -y {}' "
          "shows who answers",
          address_, bus);
    case EOPNOTSUPP:
    case EINVAL:
      return "the adapter cannot do this kind of transaction: 'i2cdetect -F " + bus +
             "' shows which ones it can" + (words_ ? "" : ", with ,word there are words");
    case ENOTTY:
      return device_ + " is no I2C bus";
    default:
      return "";
  }
}

std::string Transport::pciAdvice(int error) const {
  switch (error) {
    case ENOENT:
      return "'lspci -D' lists the devices, and each one's directory in /sys/bus/pci/devices its "
             "resource files";
    case ENODEV:
    case EINVAL:
      return "this BAR cannot be mapped: it holds I/O ports, or is switched off";
    default:
      return "";
  }
}

uint32_t readThrough(BaseTransportMethodImpl& transport, const char* regName) {
  std::optional<RegCallbackStatus> ended;
  uint32_t value = 0;
  transport.regReadWithCallback(regName, [&](auto, RegCallbackStatus status, uint32_t read) {
    ended = status;
    value = read;
  });
  serveUntil([&] { return ended.has_value(); });
  if (*ended != RegCallbackStatus::done) throwLateFailure(transport);
  return value;
}

void writeThrough(BaseTransportMethodImpl& transport, const char* regName, uint32_t value) {
  std::optional<RegCallbackStatus> ended;
  transport.regWriteWithCallback(regName, value,
                                 [&](auto, RegCallbackStatus status) { ended = status; });
  serveUntil([&] { return ended.has_value(); });
  if (*ended != RegCallbackStatus::done) throwLateFailure(transport);
  const auto* spi = dynamic_cast<const SpiTransportMethodImpl*>(&transport);
  if (!spi) return;
  // Queued so far; only the status tells whether it has reached the device.
  const uint64_t failed = spi->status()->failed();
  serveUntil([&] { return spi->config()->requests() == 0; });
  if (spi->status()->failed() == failed) return;
  std::string reason;
  for (const auto& [id, text] : spi->status()->error()) reason = std::string(text);
  throw std::runtime_error(reason);
}

}  // namespace korureg
