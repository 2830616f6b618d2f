#pragma once

// How a chip is reached: a descriptor carries the triple that selects a transport implementation
// and the parameters which that implementation needs. Made by the embedding agent, handed to
// TransportMethod; all attributes are set by the constructor and never change.

#include <cstdint>

#include "Hardware/Relay.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/TransportDescriptorEnum.h"
#include "Orb/Entity.h"
#include "Plat/Pax.h"

namespace KoruRegFile {

class KORU_EXPORT BaseTransportDescriptor : public Orb::Entity {
 public:
  // Protocol and flavour are left at 0, for the subclass to set.
  explicit BaseTransportDescriptor(TransportType type) : type_(type) {}

  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  TransportType type() const { return type_; }
  TransportProtocol protocol() const { return protocol_; }
  TransportFlavour flavour() const { return flavour_; }

 protected:
  BaseTransportDescriptor(TransportType type, TransportProtocol protocol, TransportFlavour flavour)
      : type_(type), protocol_(protocol), flavour_(flavour) {}

  const TransportType type_;
  TransportProtocol protocol_{};
  TransportFlavour flavour_{};
};

// Registers in a memory window, through the platform's accessor.
class KORU_EXPORT PciTransportDescriptor : public BaseTransportDescriptor {
 public:
  explicit PciTransportDescriptor(const Orb::Ptr<Plat::PaxImpl>& pciPax);
  static Orb::Ptr<PciTransportDescriptor> PciTransportDescriptorIs(
      const Orb::Ptr<Plat::PaxImpl>& pciPax);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<Plat::PaxImpl>& pciPax() const { return pciPax_; }

 private:
  const Orb::Ptr<Plat::PaxImpl> pciPax_;
};

// Registers behind an I2C address, through the platform's asynchronous relay.
class KORU_EXPORT I2cRelayTransportDescriptor : public BaseTransportDescriptor {
 public:
  I2cRelayTransportDescriptor(const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId);
  static Orb::Ptr<I2cRelayTransportDescriptor> I2cRelayTransportDescriptorIs(
      const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<Hardware::Relay>& relay() const { return relay_; }
  uint32_t devId() const { return devId_; }

 private:
  const Orb::Ptr<Hardware::Relay> relay_;
  const uint32_t devId_;
};

// Registers behind an I2C address, through the kernel's device node. Any flavour is accepted here;
// TransportMethod refuses those without an implementation.
class KORU_EXPORT I2cTransportDescriptor : public BaseTransportDescriptor {
 public:
  I2cTransportDescriptor(TransportFlavour flavour, const Orb::String& devNode, uint32_t devId);
  static Orb::Ptr<I2cTransportDescriptor> I2cTransportDescriptorIs(TransportFlavour flavour,
                                                                   const Orb::String& devNode,
                                                                   uint32_t devId);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::String& devNode() const { return devNode_; }
  uint32_t devId() const { return devId_; }

 private:
  const Orb::String devNode_;
  const uint32_t devId_;
};

// Registers in memory, for machines without the chip.
class KORU_EXPORT MockTransportDescriptor : public BaseTransportDescriptor {
 public:
  MockTransportDescriptor();
  static Orb::Ptr<MockTransportDescriptor> MockTransportDescriptorIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
};

// Registers behind an SPI bus, through the platform's accessor.
class KORU_EXPORT SpiTransportDescriptor : public BaseTransportDescriptor {
 public:
  explicit SpiTransportDescriptor(const Orb::Ptr<const Plat::Pax>& spiPax);
  static Orb::Ptr<SpiTransportDescriptor> SpiTransportDescriptorIs(
      const Orb::Ptr<const Plat::Pax>& spiPax);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<const Plat::Pax>& spiPax() const { return spiPax_; }

 private:
  const Orb::Ptr<const Plat::Pax> spiPax_;
};

KORU_EXPORT Orb::Ptr<PciTransportDescriptor> pciTransportDescriptorFactory(
    const Orb::Ptr<Plat::PaxImpl>& pciPax);
KORU_EXPORT Orb::Ptr<I2cRelayTransportDescriptor> i2cRelayTransportDescriptorFactory(
    const Orb::Ptr<Hardware::Relay>& relay, uint32_t devId);
KORU_EXPORT Orb::Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(
    TransportFlavour flavour, const Orb::String& devNode, uint32_t devId);
KORU_EXPORT Orb::Ptr<MockTransportDescriptor> mockTransportDescriptorFactory();
KORU_EXPORT Orb::Ptr<SpiTransportDescriptor> spiTransportDescriptorFactory(
    const Orb::Ptr<const Plat::Pax>& spiPax);

}  // namespace KoruRegFile
