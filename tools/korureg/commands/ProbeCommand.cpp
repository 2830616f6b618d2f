// korureg probe: what there is at a place.

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "board/devices/Probe.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/Transport.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

Board::ProbeReport reportOf(const Options& options) {
  if (options.places.size() != 1)
    throw UsageError("name one place to look at, with --i2c, --spi or --pci");
  const auto& [kind, place] = *options.places.begin();
  // A bus without a chip is looked at as a whole.
  const bool isBus = kind == &Board::i2cKind && place.find(':') == std::string::npos;
  const Board::Transport transport =
      isBus ? Board::Transport::at(*kind, place + ":0") : *chosenTransport(options);
  const bool isI2c = kind == &Board::i2cKind || kind == &Board::relayKind;
  if (isI2c && !isBus && transport.address == 0) {
    throw UsageError("address 0 is that of all chips at once: none can be asked by it");
  }
  try {
    if (isI2c) {
      return Board::probeI2c(transport.device, isBus ? -1 : static_cast<int>(transport.address));
    }
    if (kind == &Board::spiKind) return Board::probeSpi(transport.device);
    if (kind == &Board::pciKind) return Board::probeWindow(transport.device);
  } catch (const std::exception& e) {
    throw Failure(Board::explained(transport, KoruRegFile::TransportFailure::of(e)));
  }
  throw UsageError(fmt::format("there is nothing to look at with --{}", kind->name));
}

std::string answerOf(const Board::ProbeReport::Device& device) {
  if (!device.driver.empty()) return fmt::format("kept by the kernel's driver {}", device.driver);
  if (!device.trouble.empty()) return "cannot be asked: " + device.trouble;
  return device.answers ? "answers" : "does not answer";
}

ordered_json toJson(const Board::ProbeReport& report) {
  ordered_json json = ordered_json::object();
  for (const auto& fact : report.facts) json[fact.what] = fact.value;
  if (!report.fits.empty()) {
    json["devices"] = ordered_json::array();
    for (const auto& device : report.devices) {
      json["devices"].push_back({{"address", device.address},
                                 {"answers", device.answers},
                                 {"driver", device.driver},
                                 {"trouble", device.trouble}});
    }
    json["forms"] = ordered_json::array();
    for (const auto& fit : report.fits) {
      json["forms"].push_back(
          {{"form", fit.form->name}, {"possible", fit.whyNot.empty()}, {"reason", fit.whyNot}});
    }
  }
  return json;
}

void print(const Board::ProbeReport& report) {
  for (const auto& fact : report.facts) printLine(fmt::format("{}: {}", fact.what, fact.value));
  if (report.fits.empty()) return;
  Table devices({{"DEVICE", Table::Align::right}, {""}});
  for (const auto& device : report.devices) devices.add({hex(device.address, 8), answerOf(device)});
  devices.print();
  Table forms({{"FORM"}, {"POSSIBLE"}, {"WHAT IT IS"}});
  for (const auto& fit : report.fits) {
    forms.add({fit.form->name, fit.whyNot.empty() ? "yes" : "no: " + fit.whyNot, fit.form->help});
  }
  forms.print();
}

}  // namespace

void addProbeCommand(Command app, Options& options) {
  app.command("probe", "Look at a bus or a device: what the adapter can do, and who answers.",
              "korureg --i2c /dev/i2c-1 probe", [&](Command command) {
                command.runs([&options] {
                  const Board::ProbeReport report = reportOf(options);
                  options.json ? printJson(toJson(report)) : print(report);
                  return done;
                });
              });
}

}  // namespace korureg
