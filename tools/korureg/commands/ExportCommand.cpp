// korureg map export, korureg map html

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "korureg/Output.h"
#include "korureg/ShadowDiff.h"
#include "korureg/Transport.h"
#include "korureg/commands/MapFiles.h"
#include "korureg/import/Exports.h"
#include "korureg/import/MapReader.h"

namespace korureg {

namespace {

struct Exporting {
  std::string map;
  std::string system;
  std::string format = "markdown";
};

using Text = std::string (*)(const ImportedMap&);

Text textIn(const std::string& format) {
  if (format == "markdown") return markdownText;
  if (format == "header") return headerText;
  return format == "svd" ? svdText : nullptr;
}

int print(const Options& options, const Exporting& exporting, Text text) {
  unsigned step = Board::Transport().addrBlockSize();
  if (options.addrBlockSize) step = *options.addrBlockSize;
  if (const auto chosen = chosenTransport(options)) step = chosen->addrBlockSize();
  std::string whole = text(readOwn(exporting.map, exporting.system, step));
  if (whole.ends_with('\n')) whole.pop_back();
  printLine(whole);
  return done;
}

std::string whyNoFormat(const std::string& format) {
  return textIn(format) ? "" : "the formats are markdown, header and svd";
}

}  // namespace

void addExportCommands(Command map, Options& options) {
  map.command("export", "Print a map, and its fields, for people and for other programs.",
              "korureg map export examples/maps/ina219.csv --format header", [&](Command command) {
                auto exporting = std::make_shared<Exporting>();
                command.operand("FILE", exporting->map, "register map in CSV form");
                command.option("--format", "FORMAT", exporting->format,
                               "markdown (unless said otherwise), header or svd", whyNoFormat);
                addConfigOption(command, exporting->system);
                addBlockSize(command, options);
                command.runs([exporting, &options] {
                  return print(options, *exporting, textIn(exporting->format));
                });
              });
  map.command(
      "html", "Print a page with the registers of a map, their bits and fields.",
      "korureg map html examples/maps/ina219.csv", [&](Command command) {
        auto exporting = std::make_shared<Exporting>();
        command.operand("FILE", exporting->map, "register map in CSV form");
        addConfigOption(command, exporting->system);
        addBlockSize(command, options);
        command.runs([exporting, &options] { return print(options, *exporting, htmlText); });
      });
}

}  // namespace korureg
