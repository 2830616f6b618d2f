#include "board/devices/TransportKind.h"

#include <fmt/format.h>

#include <cerrno>

namespace Board {

namespace {

constexpr const KindRow* rows[] = {&mockKind,  &memoryKind, &i2cKind,
                                   &relayKind, &pciKind,    &spiKind};

std::string advice(const Transport& transport, int error) {
  if (error == 0 || transport.device.empty()) return "";
  if (error == EACCES || error == EPERM) {
    return fmt::format("run as root, or as a member of the group that 'ls -lL {}' shows",
                       transport.device);
  }
  return kindRow(transport.kind).advice(transport, error);
}

}  // namespace

std::span<const KindRow* const> kindRows() { return rows; }

// (In the order of the enumeration.)
const KindRow& kindRow(TransportKind kind) { return *rows[static_cast<size_t>(kind)]; }

std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> openDevice(const Transport& transport,
                                                                 const Opening& opening) {
  return kindRow(transport.kind).open(transport, opening);
}

std::string explained(const Transport& transport, const KoruRegFile::TransportFailure& failure) {
  if (failure.isBusError) {
    return fmt::format("{}: the device behind {} has gone, or the file has been cut short",
                       failure.reason,
                       transport.device.empty() ? transport.text() : transport.device);
  }
  const std::string what = advice(transport, failure.error);
  return what.empty() ? failure.reason : fmt::format("{}; {}", failure.reason, what);
}

}  // namespace Board
