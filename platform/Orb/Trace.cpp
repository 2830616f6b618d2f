#include "Orb/Trace.h"

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Orb/Printable.h"

namespace Orb {

namespace {

constexpr int defaultLevel = 0;
constexpr int highestLevel = 9;

// The journal says which stream it has given to whom, as "device:inode".
bool isJournal(int fd) {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat status;
  return stream != nullptr && ::fstat(fd, &status) == 0 &&
         fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

class StderrSink : public TraceSink {
 public:
  StderrSink() : logger_("orb", std::make_shared<spdlog::sinks::stderr_sink_mt>()) {
    logger_.set_pattern(isJournal(STDERR_FILENO) ? "%v" : "%Y-%m-%d %H:%M:%S.%f %P %v");
    logger_.set_level(spdlog::level::trace);
  }
  void message(std::string_view category, int level, std::string_view text) override {
    // Names and texts of others may stand in it.
    logger_.log(spdlog::level::info, "{}{}/{} {}", journalPriority(level), category, level,
                printable(text));
  }
  void flush() override { logger_.flush(); }

 private:
  spdlog::logger logger_;
};

}  // namespace

// The handles and levels of the process. Never destroyed: static objects may trace until the end.
class TraceRegistry {
 public:
  static TraceRegistry& instance() {
    static TraceRegistry* registry = new TraceRegistry;
    return *registry;
  }

  void add(TraceHandle& handle) {
    const std::lock_guard lock(mutex_);
    handles_.push_back(&handle);
    handle.level_.store(levelOf(handle.category()));
  }
  void remove(TraceHandle& handle) {
    const std::lock_guard lock(mutex_);
    std::erase(handles_, &handle);
  }
  void levelIs(std::string_view category, int level) {
    const std::lock_guard lock(mutex_);
    if (category == "*") {
      others_ = level;
    } else {
      levels_[std::string(category)] = level;
    }
    for (TraceHandle* handle : handles_) handle->level_.store(levelOf(handle->category()));
  }
  std::shared_ptr<TraceSink> sinkIs(std::shared_ptr<TraceSink> sink) {
    const std::lock_guard lock(mutex_);
    if (!sink) sink = std::make_shared<StderrSink>();
    return std::exchange(sink_, std::move(sink));
  }
  std::shared_ptr<TraceSink> sink() {
    const std::lock_guard lock(mutex_);
    return sink_;
  }

 private:
  TraceRegistry() : sink_(std::make_shared<StderrSink>()) {}

  int levelOf(std::string_view category) const {
    const auto found = levels_.find(category);
    return found == levels_.end() ? others_ : found->second;
  }

  std::mutex mutex_;
  std::vector<TraceHandle*> handles_;
  std::map<std::string, int, std::less<>> levels_;
  int others_ = defaultLevel;
  std::shared_ptr<TraceSink> sink_;
};

namespace {

TraceHandle trace("Trace");

void settingItemIs(std::string_view item) {
  const size_t slash = item.rfind('/');
  const std::string_view category = item.substr(0, slash);
  int level = highestLevel;
  if (slash != std::string_view::npos) {
    const char* end = item.data() + item.size();
    const auto [stop, error] = std::from_chars(item.data() + slash + 1, end, level);
    if (error != std::errc() || stop != end) level = -2;
  }
  if (category.empty() || level < -1) {
    ORB_TRACE(trace, 0, "cannot read the trace setting '{}' (expected Category/level)", item);
    return;
  }
  traceLevelIs(category, level);
}

// Reads the environment once, when the library is loaded.
const bool environmentRead = [] {
  if (const char* setting = std::getenv("ORB_TRACE")) traceSettingIs(setting);
  return true;
}();

}  // namespace

TraceHandle::TraceHandle(const char* category) : category_(category), level_(defaultLevel) {
  TraceRegistry::instance().add(*this);
}

TraceHandle::~TraceHandle() { TraceRegistry::instance().remove(*this); }

void TraceHandle::vwrite(int level, fmt::string_view format, fmt::format_args args) const {
  fmt::memory_buffer text;
  fmt::vformat_to(fmt::appender(text), format, args);
  TraceRegistry::instance().sink()->message(category_, level, {text.data(), text.size()});
}

TraceSink::~TraceSink() = default;

void traceLevelIs(std::string_view category, int level) {
  TraceRegistry::instance().levelIs(category, level);
}

void traceSettingIs(std::string_view setting) {
  while (!setting.empty()) {
    const size_t comma = setting.find(',');
    const std::string_view item = setting.substr(0, comma);
    if (!item.empty()) settingItemIs(item);
    setting.remove_prefix(comma == std::string_view::npos ? setting.size() : comma + 1);
  }
}

std::shared_ptr<TraceSink> traceSinkIs(std::shared_ptr<TraceSink> sink) {
  return TraceRegistry::instance().sinkIs(std::move(sink));
}

void traceFlush() { TraceRegistry::instance().sink()->flush(); }

const char* journalPriority(int level) {
  static const bool isWanted = isJournal(STDERR_FILENO);
  if (!isWanted) return "";
  constexpr const char* error = "<3>";
  constexpr const char* info = "<6>";
  constexpr const char* debug = "<7>";
  return level <= 0 ? error : level == 1 ? info : debug;
}

}  // namespace Orb
