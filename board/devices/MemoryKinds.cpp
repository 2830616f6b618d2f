// Transports without hardware: the mock, and windows of registers in memory.

#include <filesystem>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "Shoal/StatePath.h"
#include "board/devices/MemoryWindow.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

void readNothing(Transport&) {}

std::string noAdvice(const Transport&, int) { return ""; }

std::optional<Reach> mockReach(const Transport&) { return std::nullopt; }

std::optional<Reach> windowReach(const Transport&) {
  return Reach{"a memory window ends at", (1u << 28) - 1, "a memory window", 32};
}

std::unique_ptr<BaseTransportMethodImpl> openMock(const Transport&, const Opening& opening) {
  return std::make_unique<MockTransportMethodImpl>(opening.registerMap.c_str(), nullptr);
}

std::unique_ptr<BaseTransportMethodImpl> openWindow(const Transport& transport,
                                                    const Opening& opening) {
  const std::string& place = transport.place;
  const auto file = std::filesystem::path(Shoal::stateDirectory()) / place;
  return std::make_unique<MemoryWindow>(opening.registerMap.c_str(),
                                        place.empty() ? std::string() : file.string());
}

}  // namespace

const KindRow mockKind = {
    .kind = TransportKind::mock,
    .name = "mock",
    .placeName = nullptr,
    .help = "registers of a mock chip, kept in /tmp",
    .needsPlace = false,
    .addrBlockSize = MockTransportMethodImpl::addrBlockSize,
    .writes = KindRow::Writes::atOnce,
    .readPlace = readNothing,
    .reach = mockReach,
    .advice = noAdvice,
    .open = openMock,
};

// Has its registers where the mock has them.
const KindRow memoryKind = {
    .kind = TransportKind::memory,
    .name = "memory",
    .placeName = "FILE",
    .help = nullptr,
    .needsPlace = false,
    .addrBlockSize = MemoryWindow::addrBlockSize,
    .writes = KindRow::Writes::atOnce,
    .readPlace = readNothing,
    .reach = windowReach,
    .advice = noAdvice,
    .open = openWindow,
};

}  // namespace Board
