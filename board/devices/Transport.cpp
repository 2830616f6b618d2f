#include "board/devices/Transport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <stdexcept>
#include <vector>

#include "board/devices/TransportKind.h"

namespace Board {

Transport Transport::at(TransportKind kind, const std::string& place) {
  Transport transport;
  transport.kind = kind;
  transport.place = place;
  if (needsPlace(kind) && place.empty()) throw std::invalid_argument("it has to say where");
  kindRow(kind).readPlace(transport);
  return transport;
}

const char* Transport::name() const { return kindRow(kind).name; }

std::string Transport::text() const {
  return place.empty() ? name() : fmt::format("{} {}", name(), place);
}

uint8_t Transport::addrBlockSize() const { return kindRow(kind).addrBlockSize; }

std::optional<std::string> Transport::whyNot(const KoruRegFile::Register& reg) const {
  const auto most = kindRow(kind).reach(*this);
  if (!most) return std::nullopt;
  if (reg.address > most->lastAddress) {
    return fmt::format("{} {:#x}, its address is {:#x}", most->what, most->lastAddress,
                       reg.address);
  }
  if (reg.width > most->width) {
    return fmt::format("it has {} bits, and {} carries {} at once", reg.width, most->carrier,
                       most->width);
  }
  return std::nullopt;
}

std::optional<TransportKind> transportKind(std::string_view name) {
  for (const KindRow* row : kindRows()) {
    if (row->name == name) return row->kind;
  }
  return std::nullopt;
}

std::string transportKinds() {
  std::vector<std::string_view> names;
  for (const KindRow* row : kindRows()) names.emplace_back(row->name);
  return fmt::format("{}", fmt::join(names, ", "));
}

bool needsPlace(TransportKind kind) { return kindRow(kind).needsPlace; }

}  // namespace Board
