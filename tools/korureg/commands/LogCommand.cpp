// korureg log

#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Shoal/StatePath.h"
#include "board/chips/History.h"
#include "korureg/Command.h"
#include "korureg/HistoryJson.h"
#include "korureg/Output.h"
#include "korureg/TimePoint.h"

namespace korureg {

namespace {

using Board::HistoryRecord;

struct Log {
  std::string chip;
  std::string field;
  std::string since;
  std::string stateDirectory;
  bool follow = false;
};

// A record, and whose it is.
struct Line {
  std::string chip;
  HistoryRecord record;
  uint64_t lost = 0;  // how many are missing before it
  int64_t place = 0;  // in time, but never before one of its chip that has a lower number
};

// A history that is read on and on.
struct Source {
  std::unique_ptr<Board::HistoryReader> reader;
  uint64_t last = 0;
};

class Histories {
 public:
  explicit Histories(const Log& log) : log_(log) {
    Shoal::stateDirectoryIs(log.stateDirectory);
    directory_ = Shoal::stateDirectory();
    if (!log.since.empty()) since_ = timePointOf(log.since);
  }

  const std::string& directory() const { return directory_; }
  // What has come since the last look, in the order of time.
  std::vector<Line> next();
  bool areThere() const { return !sources_.empty(); }

 private:
  std::vector<std::string> chips() const {
    return log_.chip.empty() ? Board::chipsWithHistory(directory_) : std::vector{log_.chip};
  }
  void look(const std::string& chip, std::vector<Line>& lines);
  bool isWanted(const HistoryRecord& record) const;

  const Log& log_;
  std::string directory_;
  int64_t since_ = INT64_MIN;
  std::map<std::string, Source> sources_;
};

bool Histories::isWanted(const HistoryRecord& record) const {
  if (record.wallTime < since_) return false;
  const std::string& name = log_.field;
  if (name.empty()) return true;
  if (record.hasRegister && record.hardware == name) return true;
  return record.hasField && (name == record.reg || name == record.reg + '.' + record.field);
}

void Histories::look(const std::string& chip, std::vector<Line>& lines) {
  Source& source = sources_[chip];
  if (!source.reader || source.reader->isReplaced()) {
    source.reader = std::make_unique<Board::HistoryReader>(Board::historyPath(directory_, chip));
    // (One that begins anew; another number of records goes on in the count.)
    const auto all = source.reader->after(0);
    if (all.empty() || all.back().sequence < source.last) source.last = 0;
  }
  int64_t place = INT64_MIN;  // (clocks are set back at times)
  for (HistoryRecord& record : source.reader->after(source.last)) {
    place = std::max(place, record.wallTime);
    const bool isFirst = source.last == 0;
    const uint64_t lost = isFirst ? 0 : record.sequence - source.last - 1;
    source.last = record.sequence;
    if (isWanted(record)) lines.push_back({chip, std::move(record), lost, place});
  }
}

std::vector<Line> Histories::next() {
  std::vector<Line> lines;
  for (const std::string& chip : chips()) {
    try {
      look(chip, lines);
    } catch (const std::exception& e) {
      if (log_.follow) {  // it may come, or be there again
        sources_[chip].reader.reset();
        continue;
      }
      sources_.erase(chip);
      if (!log_.chip.empty()) throw;
      printError(e.what());
    }
  }
  std::stable_sort(lines.begin(), lines.end(),
                   [](const Line& a, const Line& b) { return a.place < b.place; });
  return lines;
}

std::string whoOf(const HistoryRecord& record) {
  const bool isPlain =
      record.why == Board::WrittenFor::request || record.why == Board::WrittenFor::program;
  const std::string why = isPlain ? "" : fmt::format(" ({})", Board::textOf(record.why));
  if (!record.hasActor) return "by the agent" + why;
  return fmt::format("by {}[{}] of user {}{}", record.actor.process, record.actor.pid,
                     record.actor.uid, why);
}

std::string writeOf(const HistoryRecord& record) {
  if (!record.hasRegister) return "no register written";
  std::string text =
      fmt::format("{}={}  {}", record.hardware, hex(record.sent), Board::textOf(record.end));
  if (record.took != 0)
    text += fmt::format(" in {:.0f} us", static_cast<double>(record.took) / 1e3);
  return record.reason.empty() ? text : text + ": " + record.reason;
}

void printText(const Line& line) {
  const HistoryRecord& record = line.record;
  if (line.lost != 0) {
    printLine(printable(
        fmt::format("{}  {}  {} records could not be kept", timeOf(record), line.chip, line.lost)));
  }
  std::string change;
  if (record.hasField) {
    change = fmt::format("{}.{}: {} -> {}  ", record.reg, record.field, hex(record.was),
                         hex(record.value));
  }
  printLine(printable(fmt::format("{}  {}  {}{}  {}{}", timeOf(record), line.chip, change,
                                  writeOf(record), whoOf(record), record.isCut ? "  (cut)" : "")));
}

void printNext(Histories& histories, bool json) {
  for (const Line& line : histories.next()) {
    json ? printJson(historyJson(line.chip, line.record, line.lost), false) : printText(line);
  }
  if (!outputIsComplete()) throw Failure("cannot write to standard output");
}

// Watched before it is looked at, so that nothing is written unseen.
Orb::Descriptor watched(const std::string& directory) {
  Orb::Descriptor inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify || ::inotify_add_watch(inotify.get(), directory.c_str(),
                                      IN_MODIFY | IN_MOVED_TO | IN_ONLYDIR) < 0) {
    Orb::throwErrno("cannot watch {}", directory);
  }
  return inotify;
}

// Until a signal ends the process, or there is nobody who reads the output.
void waitFor(const Orb::Descriptor& inotify) {
  pollfd waited[] = {{inotify.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  while (::poll(waited, 2, -1) < 0) {
  }
  if ((waited[1].revents & (POLLERR | POLLHUP)) != 0) throw Failure("nobody reads standard output");
  char events[4096];
  while (::read(inotify.get(), events, sizeof events) > 0) {
  }
}

int run(const Log& log, bool json) {
  Histories histories(log);
  Orb::Descriptor inotify;
  if (log.follow) inotify = watched(histories.directory() + "/korud");
  printNext(histories, json);
  while (log.follow) {
    waitFor(inotify);
    printNext(histories, json);
  }
  if (!histories.areThere()) {
    throw Failure(fmt::format("there is no history in {}/korud", histories.directory()));
  }
  return done;
}

std::string whyNoTime(const std::string& text) {
  try {
    timePointOf(text);
    return "";
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace

void addLogCommand(Command app, Options& options) {
  app.command(
      "log", "Show what was written to chips, by whom and when; no agent is needed.",
      "korureg log power0 --since 10m", [&](Command command) {
        auto log = std::make_shared<Log>();
        command.operand("CHIP", log->chip, "as in the system file; all without it",
                        Command::Operand::optional);
        command.option("--field", "NAME", log->field,
                       "only REGISTER.FIELD, or what is in a register, logical or of the hardware");
        command.option("--since", "TIME", log->since,
                       "not what is older: 30s, 10m, 2h or 1d ago, or 2026-01-31T14:05", whyNoTime);
        command.flag("-f,--follow", log->follow, "go on with what is written, until stopped");
        command.option("--state-dir", "DIR", log->stateDirectory, "where the agent's files lie");
        command.runs([log, &options] { return run(*log, options.json); });
      });
}

}  // namespace korureg
