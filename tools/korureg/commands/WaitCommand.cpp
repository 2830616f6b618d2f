// korureg wait

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/Reading.h"

namespace korureg {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

struct Condition {
  uint32_t mask;
  uint32_t value;

  bool holds(uint32_t read) const { return (read & mask) == value; }
};

Condition parseCondition(const std::string& text, const Target& target) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw UsageError(fmt::format("'{}' is no condition (write MASK=VALUE)", text));
  }
  Condition condition{};
  try {
    condition.mask =
        static_cast<uint32_t>(KoruRegFile::parseNumber(text.substr(0, equals), UINT32_MAX));
    condition.value =
        static_cast<uint32_t>(KoruRegFile::parseNumber(text.substr(equals + 1), UINT32_MAX));
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  if ((condition.value & ~condition.mask) != 0) {
    throw UsageError(
        fmt::format("{} can never hold: the value has bits that the mask hides", text));
  }
  if (!KoruRegFile::fitsWidth(condition.value, target.width())) {
    throw UsageError(
        fmt::format("{} can never hold: {} has {} bits only", text, target.name(), target.width()));
  }
  return condition;
}

struct Wait {
  std::string name;
  std::string condition;
  double timeout = 10;
  double interval = 0.01;
};

int waitFor(const Options& options, const Wait& wait) {
  Chip chip(options, Chip::Use::registers);
  const Target target = chip.target(wait.name);
  const Condition condition = parseCondition(wait.condition, target);
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(wait.timeout));
  while (true) {
    const Reading reading = readTarget(chip, target);
    if (!reading.failure.empty() || condition.holds(reading.value)) {
      return report({reading}, options.json);
    }
    const Seconds left = deadline - Clock::now();
    if (left <= Seconds(0)) {
      report({reading}, options.json);
      throw Failure(fmt::format("{} still is {} after {} s, not {}", target.name(),
                                hex(reading.value, target.width()), wait.timeout, wait.condition));
    }
    chip.pause();
    std::this_thread::sleep_for(std::min(Seconds(wait.interval), left));
    chip.lookAgain();
  }
}

}  // namespace

void addWaitCommand(Command app, Options& options) {
  app.command(
      "wait", "Wait until the bits under a mask have a value.",
      "korureg --map chip.csv --mock wait status 0x3=0x1 --timeout 2", [&](Command command) {
        auto wait = std::make_shared<Wait>();
        command.operand("NAME", wait->name, "register, or bits of one");
        command.operand("CONDITION", wait->condition, "what to wait for: MASK=VALUE");
        command.seconds("--timeout", wait->timeout, "give up after this time; 0 looks once");
        command.seconds("--interval", wait->interval, "time between two reads");
        command.runs([wait, &options] { return waitFor(options, *wait); });
      });
}

}  // namespace korureg
