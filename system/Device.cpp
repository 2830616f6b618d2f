#include "system/Device.h"

#include <fmt/format.h>

#include <boost/regex.hpp>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "Hardware/Relay.h"
#include "Keel/GenericSigbusHandler.h"
#include "Plat/PciPaxImpl.h"

namespace System {

using namespace KoruRegFile;

namespace {

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

std::string i2cAdvice(const Transport& transport, int error) {
  const std::string& device = transport.device;
  const uint32_t address = transport.address;
  boost::smatch number;
  const bool isNumbered = boost::regex_search(device, number, boost::regex("i2c-(\\d+)$"));
  const std::string bus = isNumbered ? number[1].str() : "BUS";
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
      return device + " is no I2C bus";
    default:
      return "";
  }
}

std::string pciAdvice(int error) {
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

std::string spiAdvice(int error) {
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

std::string advice(const Transport& transport, int error) {
  if (error == 0 || transport.device.empty()) return "";
  if (error == EACCES || error == EPERM) {
    return fmt::format("run as root, or as a member of the group that 'ls -lL {}' shows",
                       transport.device);
  }
  if (transport.kind == TransportKind::pci) return pciAdvice(error);
  if (transport.kind == TransportKind::spi) return spiAdvice(error);
  return i2cAdvice(transport, error);
}

}  // namespace

Orb::Ptr<BaseTransportDescriptor> openDevice(const Transport& transport, const std::string& name) {
  const std::string& device = transport.device;
  switch (transport.kind) {
    case TransportKind::i2c:
      return i2cTransportDescriptorFactory(transport.words ? TransportFlavour::I2cSmbusDataWord
                                                           : TransportFlavour::I2cSmbusDataBlock,
                                           device, transport.address);
    case TransportKind::relay:
      return i2cRelayTransportDescriptorFactory(Hardware::relayFactory(name, device),
                                                transport.address);
    case TransportKind::pci:
      return pciTransportDescriptorFactory(Plat::pciPaxImplFactory(name, device));
    case TransportKind::spi:
      return spiTransportDescriptorFactory(Orb::make<Plat::Pax>(name, device));
    case TransportKind::mock:
      return mockTransportDescriptorFactory();
    case TransportKind::memory:
      break;
  }
  throw std::logic_error("a memory window is no device");
}

std::string explained(const Transport& transport, const std::exception& e) {
  if (dynamic_cast<const Keel::GenericSigbusHandler::SigbusException*>(&e)) {
    return fmt::format("{}: the device behind {} has gone, or the file has been cut short",
                       e.what(), transport.device.empty() ? transport.text() : transport.device);
  }
  const std::string what = advice(transport, errnoOf(e));
  return what.empty() ? e.what() : fmt::format("{}; {}", e.what(), what);
}

}  // namespace System
