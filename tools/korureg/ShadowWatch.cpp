// korureg shadow watch

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "Brio/CorruptionDetectedException.h"
#include "KoruRegFile/Utils.h"
#include "Orb/DirectoryWatch.h"
#include "Orb/EventLoop.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/TableInfo.h"
#include "korureg/Command.h"
#include "korureg/Output.h"
#include "korureg/ShadowDiff.h"
#include "korureg/ShadowField.h"

namespace korureg {

namespace {

using KoruRegFile::ShadowFieldKey;
using nlohmann::ordered_json;
using Shoal::MountStatus;

const char* meaning(MountStatus status) {
  switch (status) {
    case MountStatus::waiting:
      return "there is no such table yet";
    case MountStatus::detached:
      return "the writer is gone, its last contents go on being served";
    case MountStatus::attached:
      return "the writer is there";
    case MountStatus::damaged:
      return "a part of the table cannot be trusted";
    default:
      return "not mounted";
  }
}

// SIGINT and SIGTERM as something to read; lives until the process ends.
int stopSignals() {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGINT);
  ::sigaddset(&set, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  // A lost reader of the output is told about, like any other output that cannot be written.
  ::signal(SIGPIPE, SIG_IGN);
  const int fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
  return fd;
}

class ShadowWatch {
 public:
  ShadowWatch(const Shoal::TablePaths& paths, FieldNames names, bool json);
  ~ShadowWatch();
  ShadowWatch(const ShadowWatch&) = delete;
  ShadowWatch& operator=(const ShadowWatch&) = delete;

  // Until a signal, or until there is nobody who reads the output.
  int run();

 private:
  void watchOutput();
  void start();
  bool mount();
  void showContents();
  void changed(uint64_t key);
  void statusChanged() { tellStatus(map_.mountStatus()); }

  void tellStatus(MountStatus status);
  void tellField(const ShadowFieldKey& field, const uint32_t* before, const uint32_t* now,
                 bool isChange);
  void print(const std::string& text, ordered_json line);
  // Ends the run; on the event loop an exception would end nothing.
  void fail(std::exception_ptr failure);

  const Shoal::TablePaths paths_;
  const FieldNames names_;
  const bool json_;
  bool damageMet_ = false;
  std::exception_ptr failure_;
  std::map<uint64_t, uint32_t> shown_;  // what has been said that the table holds
  const KoruRegFile::Utils::UnixFdRes signals_;
  std::unique_ptr<Orb::EventWatch> signalWatch_;
  std::unique_ptr<Orb::EventWatch> outputWatch_;
  std::unique_ptr<Orb::DirectoryWatch> directoryWatch_;
  Shoal::ShoalMap map_;
};

ShadowWatch::ShadowWatch(const Shoal::TablePaths& paths, FieldNames names, bool json)
    : paths_(paths),
      names_(std::move(names)),
      json_(json),
      signals_(stopSignals()),
      map_({[this](uint64_t key) { changed(key); }, [this] { statusChanged(); }, [](bool) {}}) {
  Shoal::ShoalMapBase::corruptionHandlerIs([this](const std::string& message) {
    damageMet_ = true;
    printError(message);
  });
}

ShadowWatch::~ShadowWatch() { Shoal::ShoalMapBase::corruptionHandlerIs({}); }

int ShadowWatch::run() {
  signalWatch_ = Orb::eventLoop().readable(signals_.fd(), [] { Orb::eventLoop().stop(); });
  watchOutput();
  Orb::eventLoop().defer([this] {
    try {
      start();
    } catch (...) {
      fail(std::current_exception());
    }
  });
  Orb::eventLoop().run();
  map_.unmount();
  if (failure_) std::rethrow_exception(failure_);
  return damageMet_ ? failed : done;
}

// As long as nothing changes, nothing is printed that would tell that its reader is gone.
void ShadowWatch::watchOutput() {
  struct stat output;
  if (::fstat(STDOUT_FILENO, &output) != 0) return;
  if (!S_ISFIFO(output.st_mode) && !S_ISSOCK(output.st_mode)) return;
  outputWatch_ = Orb::eventLoop().readable(STDOUT_FILENO, [this] {
    pollfd state{STDOUT_FILENO, 0, 0};
    if (::poll(&state, 1, 0) > 0) {
      fail(std::make_exception_ptr(Failure("nobody reads standard output")));
    }
    // Somebody who writes to our output is not waited for.
    outputWatch_.reset();
  });
}

void ShadowWatch::start() {
  // Watched before it is looked for, so that it does not appear unseen.
  directoryWatch_ = std::make_unique<Orb::DirectoryWatch>(paths_.directory, [this] {
    try {
      if (mount()) directoryWatch_.reset();
    } catch (...) {
      fail(std::current_exception());
    }
  });
  if (mount()) {
    directoryWatch_.reset();
  } else {
    tellStatus(MountStatus::waiting);
  }
}

// The type is the table's own, so there must be one.
bool ShadowWatch::mount() {
  const auto info = Shoal::tableTypeName(paths_);
  if (!info) return false;
  // Verifies the header, and with it the type's name.
  map_.mountAsReader(paths_.mountPath, *info);
  requireShadowFields(paths_, *info);
  showContents();
  if (!Shoal::tableWriter(paths_)) tellStatus(map_.mountStatus());
  return true;
}

void ShadowWatch::showContents() {
  std::map<ShadowFieldKey, uint32_t> fields;
  Shoal::ShoalMap::Entry entry;
  for (uint32_t position = 0; position < map_.slotCount();) {
    try {
      if (!map_.next(position, entry)) break;
      shown_[entry.key] = entry.value;
      fields[unpackField(entry.key)] = entry.value;
    } catch (const std::exception& e) {
      Shoal::ShoalMapBase::doCorruptionDetected(e.what());
    }
  }
  for (const auto& [field, value] : fields) tellField(field, nullptr, &value, false);
}

void ShadowWatch::changed(uint64_t key) {
  try {
    const ShadowFieldKey field = unpackField(key);
    const auto now = map_.get(key);
    const auto known = shown_.find(key);
    const auto before = known == shown_.end() ? std::nullopt : std::optional(known->second);
    if (now == before) return;
    if (now) {
      shown_[key] = *now;
    } else {
      shown_.erase(key);
    }
    tellField(field, before ? &*before : nullptr, now ? &*now : nullptr, true);
  } catch (const std::exception& e) {
    Shoal::ShoalMapBase::doCorruptionDetected(e.what());
  }
}

void ShadowWatch::tellStatus(MountStatus status) {
  const std::string name(Orb::enumName(status));
  print(fmt::format("{}: {}", name, meaning(status)), {{"status", name}});
}

void ShadowWatch::tellField(const ShadowFieldKey& field, const uint32_t* before,
                            const uint32_t* now, bool isChange) {
  const auto text = [&](const uint32_t* value, const char* none) {
    return value ? fieldHex(field, *value) : std::string(none);
  };
  const auto number = [](const uint32_t* value) {
    return value ? ordered_json(*value) : ordered_json();
  };
  const std::string name = nameOf(field, names_);
  ordered_json line = fieldJson(field);
  if (!names_.empty()) line["name"] = name;
  if (isChange) line["old"] = number(before);
  line["value"] = number(now);
  print(fmt::format("{}  {}  {}{}{}{}", hex(field.address()), fieldBits(field),
                    isChange ? text(before, "(none)") + " -> " : "", bold(text(now, "(deleted)")),
                    name.empty() ? "" : "  ", name),
        std::move(line));
}

void ShadowWatch::print(const std::string& text, ordered_json line) {
  if (failure_) return;
  if (json_) {
    line["time"] = timeNow();
    printJson(line, false);
  } else {
    printLine(fmt::format("{}  {}", timeNow(), text));
  }
  if (!outputIsComplete()) {
    fail(std::make_exception_ptr(Failure("cannot write to standard output")));
  }
}

void ShadowWatch::fail(std::exception_ptr failure) {
  if (!failure_) failure_ = std::move(failure);
  Orb::eventLoop().stop();
}

}  // namespace

int watchShadow(const ShadowOptions& shadow, bool json) {
  const Shoal::TablePaths paths = tablePaths(shadow);
  return ShadowWatch(paths, fieldNamesAt(shadow.config, paths.mountPath), json).run();
}

}  // namespace korureg
