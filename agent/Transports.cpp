#include "agent/Transports.h"

#include <filesystem>
#include <stdexcept>

#include "KoruRegFile/RegisterFile.h"
#include "Shoal/StatePath.h"
#include "agent/MemoryWindow.h"
#include "agent/PostingTransports.h"
#include "system/Device.h"

namespace Agent {

namespace {

// Those that post their writes are the agent's own: the library's refuse plain writes, or say
// nothing of those that fail.
void openHardware(KoruRegFile::TransportMethod& transport, const System::Chip& chip) {
  const char* map = chip.registerMap.c_str();
  const auto descriptor = System::openDevice(chip.transport, chip.name);
  if (const auto relay =
          Orb::dynamic_pointer_cast<KoruRegFile::I2cRelayTransportDescriptor>(descriptor)) {
    transport.implPtrIs(std::make_unique<PostingRelay>(transport, *relay, map));
  } else if (const auto spi =
                 Orb::dynamic_pointer_cast<KoruRegFile::SpiTransportDescriptor>(descriptor)) {
    transport.implPtrIs(std::make_unique<PostingSpi>(transport, *spi, map));
  } else {
    transport.init(descriptor, chip.registerMap);
  }
}

}  // namespace

Orb::Ptr<KoruRegFile::TransportMethod> makeTransport(const System::Chip& chip) {
  auto transport = KoruRegFile::transportMethodFactory(chip.name);
  switch (chip.transport.kind) {
    case System::TransportKind::memory: {
      const std::string& place = chip.transport.place;
      const auto file = std::filesystem::path(Shoal::stateDirectory()) / place;
      transport->implPtrIs(std::make_unique<MemoryWindow>(
          chip.registerMap.c_str(), place.empty() ? std::string() : file.string()));
      break;
    }
    default:
      try {
        openHardware(*transport, chip);
      } catch (const KoruRegFile::RegisterFileError&) {
        throw;
      } catch (const std::runtime_error& e) {
        throw std::runtime_error(System::explained(chip.transport, e));
      }
  }
  return transport;
}

}  // namespace Agent
