#include "KoruRegFile/TransportFactory.h"

#include <boost/functional/hash.hpp>
#include <tuple>
#include <unordered_map>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/MockTransportMethodImpl.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"

namespace KoruRegFile {

namespace {

using Model = Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>;
using Descriptor = Orb::Ptr<BaseTransportDescriptor>;
using Impl = std::unique_ptr<BaseTransportMethodImpl>;
using Triple = std::tuple<TransportType, TransportProtocol, TransportFlavour>;

Impl buildMock(const Descriptor&, const char* csvPath, const Model& regFile) {
  return std::make_unique<MockTransportMethodImpl>(csvPath, regFile);
}

Impl buildPci(const Descriptor& descriptor, const char* csvPath, const Model& regFile) {
  const auto pci = Orb::dynamic_pointer_cast<PciTransportDescriptor>(descriptor);
  if (!pci) return nullptr;
  return std::make_unique<PciTransportMethodImpl>(pci->pciPax(), csvPath, regFile);
}

Impl buildI2cRelay(const Descriptor& descriptor, const char* csvPath, const Model& regFile) {
  const auto i2c = Orb::dynamic_pointer_cast<I2cRelayTransportDescriptor>(descriptor);
  if (!i2c) return nullptr;
  return std::make_unique<I2cTransportRelayImpl>(i2c->relay(), i2c->devId(), csvPath, regFile);
}

template <I2cFlavour flavour>
Impl buildI2c(const Descriptor& descriptor, const char* csvPath, const Model& regFile) {
  const auto i2c = Orb::dynamic_pointer_cast<I2cTransportDescriptor>(descriptor);
  if (!i2c) return nullptr;
  return std::make_unique<I2cTransportMethodImpl>(
      i2c->devNode().c_str(), static_cast<int>(i2c->devId()), csvPath, flavour, regFile);
}

Impl buildSpi(const Descriptor& descriptor, const char* csvPath, const Model& regFile) {
  const auto spi = Orb::dynamic_pointer_cast<SpiTransportDescriptor>(descriptor);
  if (!spi) return nullptr;
  return std::make_unique<SpiTransportMethodImpl>(spi->spiPax(), csvPath, regFile);
}

const std::unordered_map<Triple, TransportBuilder, boost::hash<Triple>> builders = {
    {{TransportType::pci, TransportProtocol::DirectAccess, TransportFlavour::PciPax}, buildPci},
    {{TransportType::i2c, TransportProtocol::I2cRelay, TransportFlavour::I2cSmbusRelay},
     buildI2cRelay},
    {{TransportType::i2c, TransportProtocol::I2cSmbusIoctl, TransportFlavour::I2cSmbusDataBlock},
     buildI2c<I2cFlavour::dataBlock>},
    {{TransportType::i2c, TransportProtocol::I2cSmbusIoctl, TransportFlavour::I2cSmbusDataWord},
     buildI2c<I2cFlavour::dataWord>},
    {{TransportType::mock, TransportProtocol::mockProtocol, TransportFlavour::mockFlavour},
     buildMock},
    {{TransportType::spi, TransportProtocol::SpiAccellerator, TransportFlavour::SpiPax}, buildSpi},
};

}  // namespace

TransportBuilder transportBuilder(const BaseTransportDescriptor& descriptor) {
  const auto found =
      builders.find({descriptor.type(), descriptor.protocol(), descriptor.flavour()});
  return found == builders.end() ? nullptr : found->second;
}

}  // namespace KoruRegFile
