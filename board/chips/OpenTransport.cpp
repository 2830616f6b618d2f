#include "board/chips/OpenTransport.h"

#include <memory>
#include <stdexcept>
#include <utility>

#include "KoruRegFile/RegisterFile.h"
#include "board/devices/TransportKind.h"

namespace Board {

namespace {

using Writes = KindRow::Writes;

std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> opened(const Chip& chip) {
  try {
    return openDevice(
        chip.transport,
        {.name = chip.name, .registerMap = chip.registerMap, .busy = KoruRegFile::I2cBusy::refuse});
  } catch (const KoruRegFile::RegisterFileError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(explained(chip.transport, KoruRegFile::TransportFailure::of(e)));
  }
}

}  // namespace

PostingTransport* openTransport(KoruRegFile::TransportMethod& transport, const Chip& chip) {
  auto impl = opened(chip);
  const Writes writes = chip.transport.kind->writes;
  if (writes == Writes::atOnce && chip.order == WriteOrder()) {
    transport.implPtrIs(std::move(impl));
    return nullptr;
  }
  auto posting = std::make_unique<PostingTransport>(
      transport, std::move(impl),
      writes == Writes::endLater ? PostingTransport::Ends::later : PostingTransport::Ends::atOnce);
  posting->settlingIs({chip.order.settle.begin(), chip.order.settle.end()});
  PostingTransport* const made = posting.get();
  transport.implPtrIs(std::move(posting));
  return made;
}

}  // namespace Board
