#include "agent/Transports.h"

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/TransportFactory.h"
#include "Shoal/StatePath.h"
#include "agent/MemoryWindow.h"
#include "agent/PostingTransports.h"
#include "system/Device.h"

namespace Agent {

namespace {

using Impl = std::unique_ptr<KoruRegFile::BaseTransportMethodImpl>;

Impl memoryWindow(const System::Chip& chip) {
  const std::string& place = chip.transport.place;
  const auto file = std::filesystem::path(Shoal::stateDirectory()) / place;
  return std::make_unique<MemoryWindow>(chip.registerMap.c_str(),
                                        place.empty() ? std::string() : file.string());
}

// Those that post their writes are the agent's own: the library's refuse plain writes, or say
// nothing of those that fail.
Impl device(KoruRegFile::TransportMethod& transport, const System::Chip& chip) {
  const char* map = chip.registerMap.c_str();
  const auto descriptor = System::openDevice(chip.transport, chip.name);
  if (const auto relay =
          Orb::dynamic_pointer_cast<KoruRegFile::I2cRelayTransportDescriptor>(descriptor)) {
    return std::make_unique<PostingRelay>(transport, *relay, map);
  }
  if (const auto spi = Orb::dynamic_pointer_cast<KoruRegFile::SpiTransportDescriptor>(descriptor)) {
    return std::make_unique<PostingSpi>(transport, *spi, map);
  }
  return KoruRegFile::transportBuilder(*descriptor)(descriptor, map, nullptr);
}

}  // namespace

void openTransport(KoruRegFile::TransportMethod& transport, const System::Chip& chip) {
  try {
    const bool isMemory = chip.transport.kind == System::TransportKind::memory;
    transport.implPtrIs(isMemory ? memoryWindow(chip) : device(transport, chip));
  } catch (const KoruRegFile::RegisterFileError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(System::explained(chip.transport, e));
  }
}

}  // namespace Agent
