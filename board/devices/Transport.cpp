#include "board/devices/Transport.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include "board/devices/TransportKind.h"

namespace Board {

namespace {

const Form* findForm(const KindRow& kind, std::string_view name) {
  for (const Form& form : kind.forms) {
    if (name == form.name) return &form;
  }
  return nullptr;
}

// "a=1,b=2"
void addSettings(FormatSettings& settings, std::string_view text) {
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view setting = text.substr(0, comma);
    text.remove_prefix(std::min(comma + 1, text.size()));
    const size_t equals = setting.find('=');
    const std::string key(setting.substr(0, equals));
    if (!settings.emplace(key, setting.substr(equals + 1)).second) {
      throw FormatError(key, "is said twice");
    }
  }
}

// Takes forms and settings off the end of a place.
FormatSettings takeSettings(const KindRow& kind, std::string_view& place) {
  FormatSettings settings;
  for (size_t comma; (comma = place.rfind(',')) != std::string_view::npos;) {
    const std::string_view last = place.substr(comma + 1);
    const Form* form = findForm(kind, last);
    if (!form && last.find('=') == std::string_view::npos) break;
    addSettings(settings, form ? form->settings : last);
    place = place.substr(0, comma);
  }
  return settings;
}

}  // namespace

Transport::Transport() : kind(&mockKind) {}

Transport Transport::at(const KindRow& kind, const std::string& place) {
  Transport transport;
  transport.kind = &kind;
  transport.place = place;
  if (kind.needsPlace && place.empty()) throw std::invalid_argument("it has to say where");
  std::string_view bare = place;
  const FormatSettings settings = takeSettings(kind, bare);
  kind.readPlace(transport, bare);
  kind.readFormat(transport, settings);
  return transport;
}

const char* Transport::name() const { return kind->name; }

std::string Transport::text() const {
  return place.empty() ? name() : fmt::format("{} {}", name(), place);
}

uint8_t Transport::addrBlockSize() const { return kind->addrBlockSize(*this); }

std::optional<std::string> Transport::whyNot(const KoruRegFile::Register& reg) const {
  if (format) return format->whyNot(reg);
  const auto most = kind->reach(*this);
  if (!most) return std::nullopt;
  if (reg.address > most->lastAddress) {
    return fmt::format("{} {:#x}, its address is {:#x}", most->what, most->lastAddress,
                       reg.address);
  }
  if (reg.width > most->width) {
    return fmt::format("it has {} bits, and {} carries {} at once", reg.width, most->carrier,
                       most->width);
  }
  if (reg.writeable && reg.width < most->leastWritten) {
    return fmt::format(
        "it has {} bits, and {} of {} would write its neighbour, too; '{}' behind "
        "the place carries it as it is",
        reg.width, most->carrier, most->width, most->carriesLess);
  }
  return std::nullopt;
}

std::optional<std::string> Transport::whyNotRead(const KoruRegFile::Register& reg) const {
  if (format) {
    if (auto why = whyNot(reg)) return why;
    return format->whyNotRead();
  }
  KoruRegFile::Register asked;  // (no neighbour is written)
  asked.address = reg.address;
  asked.width = reg.width;
  if (auto why = whyNot(asked)) return why;
  const auto most = kind->reach(*this);
  if (!most || !most->whyNotRead) return std::nullopt;
  return most->whyNotRead;
}

}  // namespace Board
