// korureg record

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "Orb/Descriptor.h"
#include "board/devices/Recording.h"
#include "korureg/AgentAnswer.h"
#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/TimePoint.h"

namespace korureg {

namespace {

using Board::Recorded;
using Clock = std::chrono::steady_clock;
using nlohmann::ordered_json;
using std::chrono::nanoseconds;

struct Arguments {
  std::vector<std::string> chips;
  std::string out;
  std::string length;
  bool hasNoTimes = false;
  AgentOptions agent;
};

std::string reasonOf(int error) { return std::generic_category().message(error); }

// Signals that end a recording well, as something to wait for.
class Signals {
 public:
  Signals() {
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGINT);
    ::sigaddset(&ends, SIGTERM);
    ::sigaddset(&ends, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    descriptor_ = Orb::Descriptor(::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor_) throw Failure(fmt::format("cannot wait for signals: {}", reasonOf(errno)));
  }
  int descriptor() const { return descriptor_.get(); }

 private:
  Orb::Descriptor descriptor_;
};

// The file, in which each line is whole; it is never one that was there.
class Lines {
 public:
  explicit Lines(const std::string& path) : path_(path) {}
  void open() {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file_ = Orb::Descriptor(::open(path_.c_str(), flags, 0644));
    if (!file_) throw Failure(fmt::format("cannot make {}: {}", path_, reasonOf(errno)));
  }
  void add(const std::string& line) {
    text_ += line;
    text_ += '\n';
    if (file_ && text_.size() >= most) write();
  }
  void write() {
    for (size_t sent = 0; sent < text_.size();) {
      const ssize_t count = ::write(file_.get(), text_.data() + sent, text_.size() - sent);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) throw Failure(fmt::format("cannot write {}: {}", path_, reasonOf(errno)));
      sent += static_cast<size_t>(count);
    }
    text_.clear();
  }

 private:
  static constexpr size_t most = 1 << 16;
  const std::string path_;
  Orb::Descriptor file_;
  std::string text_;
};

class Recorder {
 public:
  Recorder(const Arguments& arguments, const Options& options);
  void run();

 private:
  struct Chip {
    uint64_t next = 1;  // number of the access that comes next
    uint64_t accesses = 0;
    uint64_t missed = 0;
  };

  void begin(const std::string& chip);
  void take(const ordered_json& event);
  void takeAll();
  // Those before that one were not told of.
  void reach(const std::string& name, Chip& chip, uint64_t number);
  void addLine(const Recorded& record) { lines_.add(Board::recordText(record)); }
  void end();
  void tell() const;

  const Arguments& arguments_;
  const Options& options_;
  Signals signals_;
  AgentClient client_;
  Lines lines_;
  std::map<std::string, Chip> chips_;
  nanoseconds begin_ = Clock::now().time_since_epoch();
};

Recorder::Recorder(const Arguments& arguments, const Options& options)
    : arguments_(arguments), options_(options), client_(arguments.agent), lines_(arguments.out) {
  lines_.add(Board::recordingHeader);
  if (!arguments.hasNoTimes) lines_.add("# begun at " + timeNow());
  std::vector<std::string> chips = arguments.chips;
  if (chips.empty()) {
    for (const auto& entry : listIn(client_.ask({{"op", "chip.list"}}))) {
      chips.push_back(textAt(entry, "name"));
    }
  }
  for (const std::string& chip : chips) begin(chip);
  lines_.open();
}

void Recorder::begin(const std::string& name) {
  if (chips_.contains(name)) return;
  const auto state = client_.ask({{"op", "bus.subscribe"}, {"chip", name}});
  chips_[name].next = numberAt(state, "next").value_or(1);
  for (const auto& entry : listAt(state, "holds")) {
    addLine({.kind = Recorded::Kind::holds,
             .chip = name,
             .reg = textAt(entry, "register"),
             .value = static_cast<uint32_t>(valueIn(entry))});
  }
  for (const auto& entry : listAt(state, "unasked")) {
    addLine({.kind = Recorded::Kind::unasked, .chip = name, .reg = textAt(entry, "register")});
  }
}

void Recorder::reach(const std::string& name, Chip& chip, uint64_t number) {
  if (number <= chip.next) return;
  chip.missed += number - chip.next;
  addLine({.kind = Recorded::Kind::gap, .chip = name, .missing = number - chip.next});
  chip.next = number;
}

void Recorder::take(const ordered_json& event) {
  const std::string name = textAt(event, "chip");
  const auto found = chips_.find(name);
  if (textAt(event, "event") != "bus" || found == chips_.end()) return;
  Chip& chip = found->second;
  reach(name, chip, numberAt(event, "number").value_or(chip.next));
  ++chip.next;
  ++chip.accesses;
  Recorded record{.kind = flagAt(event, "write") ? Recorded::Kind::write : Recorded::Kind::read,
                  .chip = name,
                  .reg = textAt(event, "register"),
                  .value = static_cast<uint32_t>(numberAt(event, "value").value_or(0))};
  if (event.contains("reason")) {
    record.failure = KoruRegFile::TransportFailure{
        .reason = textAt(event, "reason"),
        .error = static_cast<int>(numberAt(event, "errno").value_or(0)),
        .isBusError = flagAt(event, "bus_error")};
  }
  if (!arguments_.hasNoTimes) {
    const auto at = nanoseconds(static_cast<int64_t>(numberAt(event, "at_ns").value_or(0)));
    const auto took = nanoseconds(static_cast<int64_t>(numberAt(event, "took_ns").value_or(0)));
    record.times = Recorded::Times{std::max(at - begin_, nanoseconds(0)), took};
  }
  addLine(record);
}

void Recorder::takeAll() {
  try {
    while (const auto event = client_.eventAtHand()) take(*event);
  } catch (const Failure&) {
    lines_.write();  // (Without an end.)
    throw;
  }
  lines_.write();
}

// What the agent has told before it answers is recorded, too.
void Recorder::end() {
  const auto answer = client_.ask({{"op", "bus.unsubscribe"}});
  takeAll();
  const auto next = answer.value("next", ordered_json::object());
  for (auto& [name, chip] : chips_) {
    reach(name, chip, numberAt(next, name.c_str()).value_or(chip.next));
  }
  addLine({.kind = Recorded::Kind::end});
  lines_.write();
}

void Recorder::run() {
  std::optional<Clock::time_point> last;
  if (!arguments_.length.empty()) last = Clock::now() + lengthOf(arguments_.length);
  while (true) {
    takeAll();
    timespec left = {};
    if (last) {
      const auto rest = std::max(nanoseconds(*last - Clock::now()), nanoseconds(0));
      left.tv_sec = static_cast<time_t>(rest.count() / 1'000'000'000);
      left.tv_nsec = static_cast<long>(rest.count() % 1'000'000'000);
    }
    pollfd waited[] = {{client_.descriptor(), POLLIN, 0}, {signals_.descriptor(), POLLIN, 0}};
    const int found = ::ppoll(waited, 2, last ? &left : nullptr, nullptr);
    if (found == 0 || waited[1].revents != 0) break;
  }
  end();
  tell();
}

void Recorder::tell() const {
  auto document = ordered_json::array();
  for (const auto& [name, chip] : chips_) {
    if (options_.json) {
      document.push_back({{"chip", name}, {"accesses", chip.accesses}, {"missed", chip.missed}});
    } else {
      printLine(printable(fmt::format(
          "{}: {} accesses{}", name, chip.accesses,
          chip.missed == 0 ? "" : fmt::format(", and {} that were missed", chip.missed))));
    }
  }
  if (options_.json) printJson(document);
}

std::string whyNoLength(const std::string& text) {
  try {
    lengthOf(text);
    return "";
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace

void addRecordCommand(Command app, Options& options) {
  app.command(
      "record", "Record what goes over the bus of a chip, for '--replay' and tests.",
      "korureg record --out session.rec --for 1s power0", [&](Command command) {
        auto arguments = std::make_shared<Arguments>();
        command.operands("CHIP", arguments->chips, "as in the system file; all without it",
                         Command::Operand::optional);
        command.option("--out", "FILE", arguments->out, "the recording, which is not there yet");
        command.option("--for", "TIME", arguments->length,
                       "how long: 10s, 5m or 2h; otherwise until it is interrupted", whyNoLength);
        command.flag("--no-times", arguments->hasNoTimes,
                     "leave times out, so that two recordings can be compared");
        addAgentOptions(command, arguments->agent);
        command.runs([arguments, &options] {
          if (arguments->out.empty()) throw UsageError("say where to with --out FILE");
          Recorder(*arguments, options).run();
          return done;
        });
      });
}

}  // namespace korureg
