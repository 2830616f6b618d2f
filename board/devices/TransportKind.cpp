#include "board/devices/TransportKind.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cerrno>
#include <stdexcept>
#include <vector>

namespace Board {

namespace {

constexpr const KindRow* rows[] = {&mockKind, &memoryKind, &i2cKind,   &relayKind,
                                   &pciKind,  &spiKind,    &replayKind};

std::string advice(const Transport& transport, int error) {
  if (error == 0 || transport.device.empty()) return "";
  if (error == EACCES || error == EPERM) {
    return fmt::format("run as root, or as a member of the group that 'ls -lL {}' shows",
                       transport.device);
  }
  return transport.kind->advice(transport, error);
}

}  // namespace

std::span<const KindRow* const> kindRows() { return rows; }

const KindRow* transportKind(std::string_view name) {
  for (const KindRow* row : rows) {
    if (row->name == name) return row;
  }
  return nullptr;
}

std::string transportKinds() {
  std::vector<std::string_view> names;
  for (const KindRow* row : rows) names.emplace_back(row->name);
  return fmt::format("{}", fmt::join(names, ", "));
}

std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> openDevice(const Transport& transport,
                                                                 const Opening& opening) {
  return transport.kind->open(transport, opening);
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

std::string formNames(const KindRow& kind) {
  std::string names;
  for (const Form& form : kind.forms)
    names += fmt::format("{}{}", names.empty() ? "" : ", ", form.name);
  return names;
}

void requireNoRest(std::string_view place) {
  const size_t comma = place.find(',');
  if (comma == place.npos) return;
  throw std::invalid_argument(fmt::format("'{}' is no setting (write KEY=VALUE behind the place)",
                                          place.substr(comma + 1)));
}

void readNoFormat(Transport&, const FormatSettings& settings) { SettingsReader(settings, {}); }

}  // namespace Board
