// korureg peek, korureg poke: registers by address, without a map.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "KoruRegFile/AwaitAccess.h"
#include "KoruRegFile/RegisterBits.h"
#include "board/devices/TransportKind.h"
#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/Transport.h"

namespace korureg {

namespace {

using Hardware::KoruRegFile::HardwareRegister;
using Hardware::KoruRegFile::HardwareRegisterType;
using nlohmann::ordered_json;

struct Arguments {
  std::string address;
  std::string value;        // to poke
  std::string count = "1";  // to peek
  unsigned width = 0;
  bool force = false;
  AgentOptions agent;
};

constexpr uint64_t mostAtOnce = 65536;

uint32_t number(const std::string& text, uint64_t highest) {
  try {
    return static_cast<uint32_t>(KoruRegFile::parseNumber(text, highest));
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

// What every register is wide: as said, or as the transport has them. Without a format there is one
// width, and what is narrower would be padded over its neighbour.
unsigned widthOf(const Board::Transport& transport, unsigned said) {
  if (transport.format) {
    if (said != 0) return said;
    if (const unsigned bits = transport.format->valueBits()) return bits;
    throw UsageError("say how wide the register is, with --width");
  }
  const auto most = transport.kind->reach(transport);
  const unsigned own = most ? most->width : 32;
  if (said == 0 || said == own) return own;
  throw UsageError(
      fmt::format("--width {}: over {} as it is, registers have {} bits; settings behind the "
                  "place, as in ,value_bits={}, carry others",
                  said, transport.name(), own, said));
}

// What an address is multiplied by, where the transport counts otherwise than the chip.
uint32_t scaleOf(const Board::Transport& transport) {
  const bool isScaled = transport.kind == &Board::relayKind && !transport.format;
  return isScaled ? transport.addrBlockSize() : 1;
}

// Whether the agent of the state directory has the chip: what is written past it is not in its
// tables, and it may be in the middle of something.
void requireNotHeld(const Board::Transport& transport, const AgentOptions& options) {
  if (transport.device.empty()) return;
  std::optional<AgentClient> agent;
  try {
    agent = AgentClient::ifThere(options);
    if (!agent) return;
    std::error_code error;
    for (const auto& chip : agent->ask({{"op", "chip.list"}})) {
      const std::string device = chip.value("device", "");
      if (device != transport.device &&
          !std::filesystem::equivalent(device, transport.device, error)) {
        continue;
      }
      if (chip.value("address", 0u) != transport.address) continue;
      throw Failure(
          fmt::format("the agent keeps it as chip '{}': ask the agent (korureg hw), or say "
                      "--force",
                      chip.value("name", "")));
    }
  } catch (const nlohmann::json::exception&) {
    throw Failure("the agent's answer makes no sense; --force goes on without it");
  }
}

class RawChip {
 public:
  RawChip(const Options& options, const Arguments& arguments)
      : transport_(chosen(options)), width_(widthOf(transport_, arguments.width)) {
    if (!arguments.force) requireNotHeld(transport_, arguments.agent);
  }

  const Board::Transport& transport() const { return transport_; }
  unsigned width() const { return width_; }

  // Throws UsageError for an address that the transport cannot carry.
  void add(uint32_t address, bool isWritten) {
    KoruRegFile::Register reg;
    const uint64_t carried = uint64_t{address} * scaleOf(transport_);
    reg.address = static_cast<uint32_t>(std::min<uint64_t>(carried, UINT32_MAX));
    reg.width = width_;
    reg.writeable = isWritten;
    if (const auto why = transport_.whyNot(reg)) {
      throw UsageError(fmt::format("{:#x} over {}: {}", address, transport_.name(), *why));
    }
    registers_->regIs(HardwareRegister(nameOf(address), HardwareRegisterType::cfg, true,
                                       reg.address, width_, width_));
  }
  void open() {
    try {
      method_->implPtrIs(Board::openDevice(
          transport_, {.name = transport_.name(), .registerMap = "", .registers = registers_}));
    } catch (const std::exception& e) {
      throw Failure(Board::explained(transport_, KoruRegFile::TransportFailure::of(e)));
    }
  }
  KoruRegFile::AccessOutcome read(uint32_t address) const {
    return KoruRegFile::awaitRead(*method_, nameOf(address));
  }
  KoruRegFile::AccessOutcome write(uint32_t address, uint32_t value) const {
    return KoruRegFile::awaitWrite(*method_, nameOf(address), value);
  }

 private:
  static Board::Transport chosen(const Options& options) {
    const auto transport = chosenTransport(options);
    if (!transport) throw UsageError("say how the chip is reached, for instance with --i2c");
    if (transport->kind == &Board::mockKind) {
      throw UsageError(
          "a mock chip has the registers of a map: korureg --map FILE --mock read NAME");
    }
    return *transport;
  }
  static Orb::String nameOf(uint32_t address) { return fmt::format("{:#x}", address); }

  const Board::Transport transport_;
  const unsigned width_;
  const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile> registers_ =
      Hardware::KoruRegFile::hardwareRegisterFileFactory("peek");
  const Orb::Ptr<KoruRegFile::TransportMethod> method_ =
      KoruRegFile::transportMethodFactory("peek");
};

// How far apart registers lie.
uint32_t stepOf(const RawChip& chip) {
  const bool isBytes = chip.transport().kind == &Board::pciKind;
  return isBytes ? std::max(1u, chip.width() / 8) : 1;
}

int peek(const Options& options, const Arguments& arguments) {
  RawChip chip(options, arguments);
  const uint32_t first = number(arguments.address, UINT32_MAX);
  const auto count = number(arguments.count, mostAtOnce);
  if (first + uint64_t{count} * stepOf(chip) > uint64_t{UINT32_MAX} + 1) {
    throw UsageError(fmt::format("{} registers from {:#x} on exceed 32 bits", count, first));
  }
  std::vector<uint32_t> addresses;
  for (uint32_t i = 0; i < count; ++i) addresses.push_back(first + i * stepOf(chip));
  for (const uint32_t address : addresses) chip.add(address, false);
  chip.open();
  auto document = ordered_json::array();
  Table table({{"ADDRESS", Table::Align::right},
               {"HEX", Table::Align::right},
               {"DECIMAL", Table::Align::right},
               {"BITS", Table::Align::right}});
  int exitCode = done;
  for (const uint32_t address : addresses) {
    const auto outcome = chip.read(address);
    if (!outcome.isDone()) {
      printError(fmt::format("cannot read {:#x}: {}", address,
                             Board::explained(chip.transport(), *outcome.failure)));
      document.push_back(
          {{"address", address}, {"value", nullptr}, {"error", outcome.failure->reason}});
      table.add({hex(address, 8), "failed", "", ""});
      exitCode = failed;
      continue;
    }
    document.push_back({{"address", address},
                        {"value", outcome.value},
                        {"hex", hex(outcome.value, chip.width())}});
    table.add({hex(address, 8), hex(outcome.value, chip.width()), std::to_string(outcome.value),
               bits(outcome.value, chip.width())});
  }
  options.json ? printJson(document) : table.print();
  return exitCode;
}

int poke(const Options& options, const Arguments& arguments) {
  RawChip chip(options, arguments);
  const uint32_t address = number(arguments.address, UINT32_MAX);
  const uint32_t value = number(arguments.value, UINT32_MAX);
  if (!KoruRegFile::fitsWidth(value, chip.width())) {
    throw UsageError(fmt::format("{} does not fit {} bits", hex(value), chip.width()));
  }
  chip.add(address, true);
  chip.open();
  const auto outcome = chip.write(address, value);
  if (outcome.isDone()) return done;
  throw Failure(fmt::format("cannot write {:#x} to {:#x}: {}", value, address,
                            Board::explained(chip.transport(), *outcome.failure)));
}

void addShared(Command command, Arguments& arguments) {
  command.operand("ADDRESS", arguments.address, "the register's address: decimal, 0x or 0b");
  command.number("--width", "BITS", arguments.width, {8, 16, 24, 32},
                 "bits of the register, for a transport that has registers of several widths");
  command.flag("--force", arguments.force,
               "also access a chip that the agent of the state directory keeps");
  addAgentOptions(command, arguments.agent);
}

}  // namespace

void addPeekCommands(Command app, Options& options) {
  app.command("peek", "Read registers by address, without a map.",
              "korureg --i2c /dev/i2c-1:0x48,word-high-first peek 0x00", [&](Command command) {
                auto reading = std::make_shared<Arguments>();
                addShared(command, *reading);
                command.operand("COUNT", reading->count, "how many registers, from that one on",
                                Command::Operand::optional);
                command.runs([reading, &options] { return peek(options, *reading); });
              });
  app.command("poke", "Write a register by address, without a map.",
              "korureg --i2c /dev/i2c-1:0x20,byte poke 0x00 0x0f", [&](Command command) {
                auto writing = std::make_shared<Arguments>();
                addShared(command, *writing);
                command.operand("VALUE", writing->value, "what to write: decimal, 0x or 0b");
                command.runs([writing, &options] { return poke(options, *writing); });
              });
}

}  // namespace korureg
