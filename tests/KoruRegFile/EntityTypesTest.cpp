// What entities offer by name, as the agent's socket does: each attribute can be shown.

#include <fmt/format.h>
#include <gmock/gmock.h>

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

std::string described(const Orb::Entity& entity) {
  const Orb::EntityType& type = entity.fwkType();
  for (const auto& attribute : type.attributes()) {
    EXPECT_NE(attribute.strep(entity), "") << attribute.name;
  }
  return fmt::format("{} {}/{}", type.name(), type.attributes().size(), type.operations().size());
}

// With how many attributes and operations there are.
TEST(EntityTypes, DescribeThemselves) {
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
  const std::pair<Orb::Ptr<Orb::Entity>, const char*> table[] = {
      {OrbPool::EntityManager::EntityManagerIs(), "OrbPool::EntityManager 0/0"},
      {relay, "Hardware::Relay 3/0"},
      {relay->newRequest(), "Hardware::RelayRequest 1/1"},
      {Hardware::KoruRegFile::HardwareRegisterFile::HardwareRegisterFileIs("model"),
       "Hardware::KoruRegFile::HardwareRegisterFile 2/3"},
      {pax, "Plat::Pax 3/0"},
      {Orb::make<Plat::PaxImpl>("pax"), "Plat::PaxImpl 1/0"},
      {Plat::PciPaxImpl::PciPaxImplIs("pci", window.path()), "Plat::PciPaxImpl 4/2"},
      {sm, "Spi::SpiSm 3/0"},
      {sm->accel(), "HalSpiAccel::Accel 1/0"},
      {sm->config(), "Spi::Config 2/0"},
      {sm->status(), "Spi::Status 4/0"},
      {Ore::Central::SystemStatus::SystemStatusIs("board"), "Ore::Central::SystemStatus 2/3"},
      {Ore::Central::ChipStatus::ChipStatusIs("chip"), "Ore::Central::ChipStatus 2/1"},
      {Shoal::CollectionControl::CollectionControlIs(), "Shoal::CollectionControl 3/0"},
      {LogicalModel::LogicalModelIs(), "KoruRegFile::LogicalModel 2/6"},
      {PhysicalModel::PhysicalModelIs(), "KoruRegFile::PhysicalModel 3/7"},
      {chip, "KoruRegFile::LogicalChip 11/21"},
      {LogicalWriteSm::LogicalWriteSmIs(chip), "KoruRegFile::LogicalWriteSm 1/3"},
      {ShadowFieldsSm::ShadowFieldsSmIs(nullptr, nullptr, nullptr, true),
       "KoruRegFile::ShadowFieldsSm 7/9"},
      {ShadowFieldsConfig::ShadowFieldsConfigIs("table"), "KoruRegFile::ShadowFieldsConfig 2/6"},
      {ShadowFieldsStatus::ShadowFieldsStatusIs("table"), "KoruRegFile::ShadowFieldsStatus 2/6"},
      {RegList::RegListIs(), "KoruRegFile::RegList 1/3"},
      {RegFileHelper::RegFileHelperIs("map"), "KoruRegFile::RegFileHelper 2/4"},
      {PossibleChipStatus::PossibleChipStatusIs("chip"), "KoruRegFile::PossibleChipStatus 3/2"},
      {PossibleSystemStatus::PossibleSystemStatusIs("board"),
       "KoruRegFile::PossibleSystemStatus 3/6"},
      {Translation::TranslationIs("chip"), "KoruRegFile::Translation 3/9"},
      {PciTransportDescriptor::PciTransportDescriptorIs(nullptr),
       "KoruRegFile::PciTransportDescriptor 4/0"},
      {I2cRelayTransportDescriptor::I2cRelayTransportDescriptorIs(relay, 5),
       "KoruRegFile::I2cRelayTransportDescriptor 5/0"},
      {I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataWord, "", 5),
       "KoruRegFile::I2cTransportDescriptor 5/0"},
      {MockTransportDescriptor::MockTransportDescriptorIs(),
       "KoruRegFile::MockTransportDescriptor 3/0"},
      {SpiTransportDescriptor::SpiTransportDescriptorIs(pax),
       "KoruRegFile::SpiTransportDescriptor 4/0"},
      {TransportMethod::TransportMethodIs("chip"), "KoruRegFile::TransportMethod 3/8"},
      {TransportMethodError::TransportMethodErrorIs("chip"),
       "KoruRegFile::TransportMethodError 2/2"},
      {access, "KoruRegFile::I2cTransportRelayImplSm 2/1"},
      {access->i2cTransportRequestIs(relay->newRequest(), 5, "reg", 0),
       "KoruRegFile::I2cTransportRequest 5/1"},
      {Orb::make<Agent>(), "KoruRegFile::SystemChipStatusSmBase 5/4"},
  };
  for (const auto& [entity, description] : table) EXPECT_EQ(described(*entity), description);
}

}  // namespace
