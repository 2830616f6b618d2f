#include "KoruRegFile/TransportDescriptor.h"

#include "Orb/EntityType.h"

namespace KoruRegFile {

using Orb::EntityTypeOf;
using Orb::Ptr;

const Orb::EntityType& BaseTransportDescriptor::entityType() {
  using D = BaseTransportDescriptor;
  static const auto type = EntityTypeOf<D>("KoruRegFile::BaseTransportDescriptor")
                               .attribute("type", &D::type)
                               .attribute("protocol", &D::protocol)
                               .attribute("flavour", &D::flavour);
  return type;
}

PciTransportDescriptor::PciTransportDescriptor(const Ptr<Plat::PaxImpl>& pciPax)
    : BaseTransportDescriptor(TransportType::pci, TransportProtocol::DirectAccess,
                              TransportFlavour::PciPax),
      pciPax_(pciPax) {}

Ptr<PciTransportDescriptor> pciTransportDescriptorFactory(const Ptr<Plat::PaxImpl>& pciPax) {
  return Orb::make<PciTransportDescriptor>(pciPax);
}

Ptr<PciTransportDescriptor> PciTransportDescriptor::PciTransportDescriptorIs(
    const Ptr<Plat::PaxImpl>& pciPax) {
  return pciTransportDescriptorFactory(pciPax);
}

const Orb::EntityType& PciTransportDescriptor::entityType() {
  static const auto type =
      EntityTypeOf<PciTransportDescriptor>("KoruRegFile::PciTransportDescriptor")
          .extends(BaseTransportDescriptor::entityType())
          .attribute("pciPax", &PciTransportDescriptor::pciPax);
  return type;
}

I2cRelayTransportDescriptor::I2cRelayTransportDescriptor(const Ptr<Hardware::Relay>& relay,
                                                         uint32_t devId)
    : BaseTransportDescriptor(TransportType::i2c, TransportProtocol::I2cRelay,
                              TransportFlavour::I2cSmbusRelay),
      relay_(relay),
      devId_(devId) {}

Ptr<I2cRelayTransportDescriptor> i2cRelayTransportDescriptorFactory(
    const Ptr<Hardware::Relay>& relay, uint32_t devId) {
  return Orb::make<I2cRelayTransportDescriptor>(relay, devId);
}

Ptr<I2cRelayTransportDescriptor> I2cRelayTransportDescriptor::I2cRelayTransportDescriptorIs(
    const Ptr<Hardware::Relay>& relay, uint32_t devId) {
  return i2cRelayTransportDescriptorFactory(relay, devId);
}

const Orb::EntityType& I2cRelayTransportDescriptor::entityType() {
  using D = I2cRelayTransportDescriptor;
  static const auto type = EntityTypeOf<D>("KoruRegFile::I2cRelayTransportDescriptor")
                               .extends(BaseTransportDescriptor::entityType())
                               .attribute("relay", &D::relay)
                               .attribute("devId", &D::devId);
  return type;
}

I2cTransportDescriptor::I2cTransportDescriptor(TransportFlavour flavour, const Orb::String& devNode,
                                               uint32_t devId)
    : BaseTransportDescriptor(TransportType::i2c, TransportProtocol::I2cSmbusIoctl, flavour),
      devNode_(devNode),
      devId_(devId) {}

Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(TransportFlavour flavour,
                                                          const Orb::String& devNode,
                                                          uint32_t devId) {
  return Orb::make<I2cTransportDescriptor>(flavour, devNode, devId);
}

Ptr<I2cTransportDescriptor> I2cTransportDescriptor::I2cTransportDescriptorIs(
    TransportFlavour flavour, const Orb::String& devNode, uint32_t devId) {
  return i2cTransportDescriptorFactory(flavour, devNode, devId);
}

const Orb::EntityType& I2cTransportDescriptor::entityType() {
  using D = I2cTransportDescriptor;
  static const auto type = EntityTypeOf<D>("KoruRegFile::I2cTransportDescriptor")
                               .extends(BaseTransportDescriptor::entityType())
                               .attribute("devNode", &D::devNode)
                               .attribute("devId", &D::devId);
  return type;
}

MockTransportDescriptor::MockTransportDescriptor()
    : BaseTransportDescriptor(TransportType::mock, TransportProtocol::mockProtocol,
                              TransportFlavour::mockFlavour) {}

Ptr<MockTransportDescriptor> mockTransportDescriptorFactory() {
  return Orb::make<MockTransportDescriptor>();
}

Ptr<MockTransportDescriptor> MockTransportDescriptor::MockTransportDescriptorIs() {
  return mockTransportDescriptorFactory();
}

const Orb::EntityType& MockTransportDescriptor::entityType() {
  static const auto type =
      EntityTypeOf<MockTransportDescriptor>("KoruRegFile::MockTransportDescriptor")
          .extends(BaseTransportDescriptor::entityType());
  return type;
}

SpiTransportDescriptor::SpiTransportDescriptor(const Ptr<const Plat::Pax>& spiPax)
    : BaseTransportDescriptor(TransportType::spi, TransportProtocol::SpiAccellerator,
                              TransportFlavour::SpiPax),
      spiPax_(spiPax) {}

Ptr<SpiTransportDescriptor> spiTransportDescriptorFactory(const Ptr<const Plat::Pax>& spiPax) {
  return Orb::make<SpiTransportDescriptor>(spiPax);
}

Ptr<SpiTransportDescriptor> SpiTransportDescriptor::SpiTransportDescriptorIs(
    const Ptr<const Plat::Pax>& spiPax) {
  return spiTransportDescriptorFactory(spiPax);
}

const Orb::EntityType& SpiTransportDescriptor::entityType() {
  static const auto type =
      EntityTypeOf<SpiTransportDescriptor>("KoruRegFile::SpiTransportDescriptor")
          .extends(BaseTransportDescriptor::entityType())
          .attribute("spiPax", &SpiTransportDescriptor::spiPax);
  return type;
}

}  // namespace KoruRegFile
