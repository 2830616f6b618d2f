// korureg watch

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "korureg/Chip.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/Reading.h"

namespace korureg {

namespace {

struct Watch {
  std::vector<std::string> names;
  double interval = 1;
  uint64_t rounds = 0;
};

std::string shown(const Reading& reading) {
  return reading.failure.empty() ? hex(reading.value, reading.target.width()) : "failed";
}

void printChange(const Reading& reading, const Reading* previous, bool json) {
  if (json) {
    auto line = toJson(reading);
    line["time"] = timeNow();
    printJson(line, false);
    return;
  }
  const std::string before = previous ? fmt::format("{} -> ", shown(*previous)) : "";
  printLine(fmt::format("{}  {}  {}{}", timeNow(), printable(reading.target.name()), before,
                        bold(shown(reading))));
}

// Also ends when whoever read the output has gone: as long as nothing changes, nothing is printed
// that would tell.
void pauseFor(Chip& chip, std::chrono::duration<double> pause) {
  chip.pause();
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(pause).count();
  timespec limit = {};  // (whose members are narrower on some machines)
  limit.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
  limit.tv_nsec = static_cast<decltype(limit.tv_nsec)>(nanoseconds % 1'000'000'000);
  pollfd output{STDOUT_FILENO, 0, 0};
  if (::ppoll(&output, 1, &limit, nullptr) > 0) throw Failure("nobody reads standard output");
  chip.lookAgain();
}

int watchAll(const Options& options, const Watch& watch) {
  Chip chip(options, Chip::Use::registers);
  const std::vector<Target> targets = chip.targets(watch.names);
  std::vector<Reading> last;
  for (uint64_t round = 0; watch.rounds == 0 || round < watch.rounds; ++round) {
    if (round > 0) pauseFor(chip, std::chrono::duration<double>(watch.interval));
    const std::vector<Reading> readings = readTargets(chip, targets);
    for (size_t i = 0; i < readings.size(); ++i) {
      const Reading* previous = last.empty() ? nullptr : &last[i];
      const bool same = previous && previous->value == readings[i].value &&
                        previous->failure == readings[i].failure;
      if (same) continue;
      printChange(readings[i], previous, options.json);
      if (!readings[i].failure.empty()) printError(readings[i].failure);
    }
    last = readings;
    if (!outputIsComplete()) throw Failure("cannot write to standard output");
  }
  return std::any_of(last.begin(), last.end(), [](const Reading& r) { return !r.failure.empty(); })
             ? failed
             : done;
}

}  // namespace

void addWatchCommand(Command app, Options& options) {
  app.command("watch", "Show registers, and then each change, until stopped.",
              "korureg --map chip.csv --mock watch status --interval 0.1", [&](Command command) {
                auto watch = std::make_shared<Watch>();
                command.operands("NAME", watch->names, "registers, or bits of them");
                command.seconds("--interval", watch->interval, "time between two looks");
                command.number("--count", "N", watch->rounds,
                               "stop after so many looks; 0 never stops");
                command.runs([watch, &options] { return watchAll(options, *watch); });
              });
}

}  // namespace korureg
