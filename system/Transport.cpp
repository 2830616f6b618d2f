#include "system/Transport.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <vector>

#include "KoruRegFile/MockTransportMethodImpl.h"

namespace System {

namespace {

struct Kind {
  TransportKind kind;
  const char* name;
  uint8_t addrBlockSize;
};

// A window of the agent's own has its registers where the mock has them.
constexpr std::array kinds = {
    Kind{TransportKind::mock, "mock", KoruRegFile::MockTransportMethodImpl::addrBlockSize},
    Kind{TransportKind::memory, "memory", KoruRegFile::MockTransportMethodImpl::addrBlockSize},
};

const Kind& find(TransportKind kind) {
  return *std::find_if(kinds.begin(), kinds.end(), [&](const Kind& k) { return k.kind == kind; });
}

// The last address that a window has room for.
constexpr uint32_t lastWindowAddress = (1u << 28) - 1;

}  // namespace

std::string Transport::text() const {
  const std::string name = find(kind).name;
  return place.empty() ? name : name + ' ' + place;
}

uint8_t Transport::addrBlockSize() const { return find(kind).addrBlockSize; }

std::optional<std::string> Transport::whyNot(const KoruRegFile::Register& reg) const {
  if (kind == TransportKind::memory && reg.address > lastWindowAddress) {
    return fmt::format("a memory window ends at address {:#x}", lastWindowAddress);
  }
  return std::nullopt;
}

std::optional<TransportKind> transportKind(std::string_view name) {
  const auto found =
      std::find_if(kinds.begin(), kinds.end(), [&](const Kind& k) { return k.name == name; });
  return found == kinds.end() ? std::nullopt : std::optional(found->kind);
}

std::string transportKinds() {
  std::vector<std::string_view> names;
  for (const Kind& kind : kinds) names.emplace_back(kind.name);
  return fmt::format("{}", fmt::join(names, ", "));
}

}  // namespace System
