#include "agent/Transports.h"

#include "agent/MemoryWindow.h"

namespace Agent {

Orb::Ptr<KoruRegFile::TransportMethod> makeTransport(const System::Chip& chip) {
  auto transport = KoruRegFile::transportMethodFactory(chip.name);
  switch (chip.transport.kind) {
    case System::TransportKind::mock:
      transport->init(KoruRegFile::mockTransportDescriptorFactory(), chip.registerMap);
      break;
    case System::TransportKind::memory:
      transport->implPtrIs(
          std::make_unique<MemoryWindow>(chip.registerMap.c_str(), chip.transport.place));
      break;
  }
  return transport;
}

}  // namespace Agent
