// Transports without hardware: the mock, and windows of registers in memory.

#include <filesystem>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "Shoal/StatePath.h"
#include "board/devices/MemoryWindow.h"
#include "board/devices/TransportKind.h"
#include "board/devices/WindowFormatTransport.h"

namespace Board {

using namespace KoruRegFile;

namespace {

// The file is as long as the last register needs: this keeps a wrong number from making a huge one.
constexpr uint32_t lastOfWindow = (1u << 28) - 1;

void readNothing(Transport&, std::string_view) {}

uint8_t mockBlockSize(const Transport&) { return MockTransportMethodImpl::addrBlockSize; }

const WindowFormat* formatOf(const Transport& transport) {
  return static_cast<const WindowFormat*>(transport.format.get());
}

uint8_t windowBlockSize(const Transport& transport) {
  const WindowFormat* format = formatOf(transport);
  return format ? static_cast<uint8_t>(format->stride) : MemoryWindow::addrBlockSize;
}

void readWindow(Transport& transport, std::string_view place) { transport.file = place; }

void readWindowFormat(Transport& transport, const FormatSettings& settings) {
  if (!settings.empty()) transport.format = WindowFormat::of(settings, lastOfWindow);
}

std::string noAdvice(const Transport&, int) { return ""; }

std::optional<Reach> mockReach(const Transport&) { return std::nullopt; }

std::optional<Reach> windowReach(const Transport&) {
  return Reach{"a memory window ends at", lastOfWindow, "a memory window", 32};
}

std::unique_ptr<BaseTransportMethodImpl> openMock(const Transport&, const Opening& opening) {
  return std::make_unique<MockTransportMethodImpl>(opening.registerMap.c_str(), nullptr);
}

std::unique_ptr<BaseTransportMethodImpl> openWindow(const Transport& transport,
                                                    const Opening& opening) {
  const std::string& place = transport.file;
  const std::string file =
      place.empty() ? place : (std::filesystem::path(Shoal::stateDirectory()) / place).string();
  if (!transport.format) return std::make_unique<MemoryWindow>(opening.registerMap.c_str(), file);
  return std::make_unique<WindowFormatTransport>(
      [&file](size_t needed) { return fileWindow(file, needed); },
      std::static_pointer_cast<const WindowFormat>(transport.format), opening.map());
}

}  // namespace

const KindRow mockKind = {
    .name = "mock",
    .placeName = nullptr,
    .help = "registers of a mock chip, kept in /tmp",
    .needsPlace = false,
    .writes = KindRow::Writes::atOnce,
    .forms = {},
    .addrBlockSize = mockBlockSize,
    .readPlace = readNothing,
    .readFormat = readNoFormat,
    .reach = mockReach,
    .advice = noAdvice,
    .open = openMock,
};

// Has its registers where the mock has them.
const KindRow memoryKind = {
    .name = "memory",
    .placeName = "FILE",
    .help = nullptr,
    .needsPlace = false,
    .writes = KindRow::Writes::atOnce,
    .forms = {},
    .addrBlockSize = windowBlockSize,
    .readPlace = readWindow,
    .readFormat = readWindowFormat,
    .reach = windowReach,
    .advice = noAdvice,
    .open = openWindow,
    .forgets = [](const Transport& transport) { return transport.file.empty(); },
};

}  // namespace Board
