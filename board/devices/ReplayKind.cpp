// Chips that are not there: answered from a recording of their bus.

#include "board/devices/ReplayTransport.h"
#include "board/devices/TransportKind.h"

namespace Board {

using namespace KoruRegFile;

namespace {

uint8_t blockSize(const Transport&) { return ReplayTransport::addrBlockSize; }

void readFile(Transport& transport, std::string_view place) {
  requireNoRest(place);
  transport.file = place;
}

// Which chip of the recording, where it has another name there.
void readChip(Transport& transport, const FormatSettings& settings) {
  SettingsReader(settings, {"chip"});
  const auto chip = settings.find("chip");
  if (chip != settings.end()) transport.recordedChip = chip->second;
}

std::optional<Reach> reach(const Transport&) { return std::nullopt; }

std::string noAdvice(const Transport&, int) { return ""; }

std::unique_ptr<BaseTransportMethodImpl> open(const Transport& transport, const Opening& opening) {
  return std::make_unique<ReplayTransport>(ReplaySource{.path = transport.file,
                                                        .chip = transport.recordedChip,
                                                        .name = opening.name,
                                                        .registerMap = opening.registerMap,
                                                        .registers = opening.registers});
}

}  // namespace

const KindRow replayKind = {
    .name = "replay",
    .placeName = "FILE",
    .help = "no chip: what 'korureg record' wrote answers; FILE,chip=NAME for one of several",
    .needsPlace = true,
    .writes = KindRow::Writes::atOnce,
    .forms = {},
    .addrBlockSize = blockSize,
    .readPlace = readFile,
    .readFormat = readChip,
    .reach = reach,
    .advice = noAdvice,
    .open = open,
    .forgets = [](const Transport&) { return true; },
    .isBesideFile = true,
};

}  // namespace Board
