// Registers of a PCI device, or in any file that can be mapped.

#include <fmt/format.h>

#include <cerrno>

#include "KoruRegFile/PciTransportMethodImpl.h"
#include "board/devices/TransportKind.h"
#include "board/devices/WindowFormatTransport.h"

namespace Board {

using namespace KoruRegFile;

namespace {

// Whether the text has that form: x stands for a hexadecimal digit, 7 for one up to 7.
bool hasForm(std::string_view text, std::string_view form) {
  if (text.size() != form.size()) return false;
  for (size_t i = 0; i < form.size(); ++i) {
    const char c = text[i];
    const bool isOctal = c >= '0' && c <= '7';
    const bool isHexadecimal = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (form[i] == 'x' ? !isHexadecimal : form[i] == '7' ? !isOctal : c != form[i]) return false;
  }
  return true;
}

// The file of the system that a device's place on the bus stands for; none when it is no such
// place.
std::optional<std::string> resourceOf(std::string_view place) {
  std::string_view device = place;
  char bar = '0';
  if (hasForm(device.substr(device.size() - std::min<size_t>(2, device.size())), "/7") &&
      device.back() <= '5') {
    bar = device.back();
    device.remove_suffix(2);
  }
  const bool isShort = hasForm(device, "xx:xx.7");
  if (!isShort && !hasForm(device, "xxxx:xx:xx.7")) return std::nullopt;
  return fmt::format("/sys/bus/pci/devices/{}{}/resource{}", isShort ? "0000:" : "", device, bar);
}

// Anything but a device's place is a file itself, and may have a comma in its name.
void readPlace(Transport& transport, std::string_view place) {
  if (resourceOf(place.substr(0, place.find(',')))) requireNoRest(place);
  transport.device = resourceOf(place).value_or(std::string(place));
}

const WindowFormat* formatOf(const Transport& transport) {
  return static_cast<const WindowFormat*>(transport.format.get());
}

uint8_t blockSize(const Transport& transport) {
  const WindowFormat* format = formatOf(transport);
  return format ? static_cast<uint8_t>(format->stride) : PciTransportMethodImpl::addrBlockSize;
}

void readFormat(Transport& transport, const FormatSettings& settings) {
  if (!settings.empty()) transport.format = WindowFormat::of(settings);
}

// The accessor knows where its window ends.
std::optional<Reach> reach(const Transport&) { return std::nullopt; }

std::string advice(const Transport&, int error) {
  switch (error) {
    case ENOENT:
      return "'lspci -D' lists the devices, and each one's directory in /sys/bus/pci/devices its "
             "resource files";
    case ENODEV:
    case EINVAL:
      return "this BAR cannot be mapped: it holds I/O ports, or is switched off";
    default:
      return "";
  }
}

std::unique_ptr<BaseTransportMethodImpl> open(const Transport& transport, const Opening& opening) {
  if (transport.format) {
    return std::make_unique<WindowFormatTransport>(
        [&](size_t) { return deviceWindow(opening.name, transport.device); },
        std::static_pointer_cast<const WindowFormat>(transport.format), opening.map());
  }
  return std::make_unique<PciTransportMethodImpl>(
      Plat::pciPaxImplFactory(opening.name, transport.device), opening.registerMap.c_str(),
      opening.registers);
}

}  // namespace

const KindRow pciKind = {
    .name = "pci",
    .placeName = "PLACE",
    .help = "PCI device, as in 0000:03:00.0/0, or a file to be mapped",
    .needsPlace = true,
    .writes = KindRow::Writes::atOnce,
    .forms = {},
    .addrBlockSize = blockSize,
    .readPlace = readPlace,
    .readFormat = readFormat,
    .reach = reach,
    .advice = advice,
    .open = open,
};

}  // namespace Board
