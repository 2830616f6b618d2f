// What entities offer by name, as the agent's socket does: each attribute can be shown, also of an
// entity that is bare.

#include <gtest/gtest.h>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/SystemChipStatusSm.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EntityType.h"
#include "Plat/PciPaxImpl.h"
#include "Spi/SpiSm.h"
#include "testing/BusSimulator.h"
#include "testing/TempFile.h"

namespace {

using namespace KoruRegFile;

struct Agent : SystemChipStatusSmBase {
  Agent()
      : SystemChipStatusSmBase(OrbPool::entityManagerFactory(), nullptr, logicalModelFactory(),
                               physicalModelFactory()) {}
  Orb::Ptr<LogicalChip> createLogicalChip(const Orb::String&) override { return nullptr; }
  Orb::Ptr<TransportMethod> createTransport(const Orb::String&) override { return nullptr; }
};

TEST(EntityTypes, ShowEachAttribute) {
  Testing::BusSimulator bus;
  bus.chipIs("/dev/i2c-7", 5, 16);
  bus.spiNodeIs("/dev/spidev7.1");
  const Testing::TempFile window("a register");
  const auto relay = Hardware::Relay::RelayIs("relay", "/dev/i2c-7");
  const auto pax = Orb::make<Plat::Pax>("pax", "/dev/spidev7.1");
  const auto sm = Spi::SpiSm::SpiSmIs(Orb::make<HalSpiAccel::Accel>(pax),
                                      Orb::make<Spi::Config>("spi"), Orb::make<Spi::Status>("spi"));
  const auto chip = LogicalChip::LogicalChipIs("chip");
  const auto access = I2cTransportRelayImplSm::I2cTransportRelayImplSmIs(
      relay, 5, RegFileHelper::RegFileHelperIs("map"));
  const Orb::Ptr<Orb::Entity> entities[] = {
      relay,
      relay->newRequest(),
      Plat::PciPaxImpl::PciPaxImplIs("pci", window.path()),
      sm,
      Ore::Central::ChipStatus::ChipStatusIs("chip"),
      LogicalModel::LogicalModelIs(),
      PhysicalModel::PhysicalModelIs(),
      chip,
      LogicalWriteSm::LogicalWriteSmIs(chip),
      ShadowFieldsSm::ShadowFieldsSmIs(nullptr, nullptr, nullptr, true),
      ShadowFieldsConfig::ShadowFieldsConfigIs("table"),
      RegFileHelper::RegFileHelperIs("map"),
      PossibleChipStatus::PossibleChipStatusIs("chip"),
      PossibleSystemStatus::PossibleSystemStatusIs("board"),
      Translation::TranslationIs("chip"),
      PciTransportDescriptor::PciTransportDescriptorIs(nullptr),
      I2cRelayTransportDescriptor::I2cRelayTransportDescriptorIs(relay, 5),
      I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataWord, "", 5),
      SpiTransportDescriptor::SpiTransportDescriptorIs(pax),
      TransportMethod::TransportMethodIs("chip"),
      access,
      access->i2cTransportRequestIs(relay->newRequest(), 5, "reg", 0),
      Orb::make<Agent>()};
  for (const auto& entity : entities) {
    const Orb::EntityType& type = entity->fwkType();
    for (const auto& attribute : type.attributes()) {
      EXPECT_NE(attribute.strep(*entity), "") << type.name() << "::" << attribute.name;
    }
  }
}

}  // namespace
