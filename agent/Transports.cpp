#include "agent/Transports.h"

#include <filesystem>

#include "Shoal/StatePath.h"
#include "agent/MemoryWindow.h"

namespace Agent {

Orb::Ptr<KoruRegFile::TransportMethod> makeTransport(const System::Chip& chip) {
  auto transport = KoruRegFile::transportMethodFactory(chip.name);
  switch (chip.transport.kind) {
    case System::TransportKind::mock:
      transport->init(KoruRegFile::mockTransportDescriptorFactory(), chip.registerMap);
      break;
    case System::TransportKind::memory: {
      const std::string& place = chip.transport.place;
      const auto file = std::filesystem::path(Shoal::stateDirectory()) / place;
      transport->implPtrIs(std::make_unique<MemoryWindow>(
          chip.registerMap.c_str(), place.empty() ? std::string() : file.string()));
      break;
    }
  }
  return transport;
}

}  // namespace Agent
