#pragma once

// Traces: messages with a category and a level (0 errors, 1 lifecycle, 2 per-item detail, up to 9).
//
// Each category writes the levels up to its own; that is 0 unless the environment says otherwise at
// start-up, as in ORB_TRACE="Register/8,ShadowFieldsSm/2" ("*" names all), or traceLevelIs() does.
// A source file has a static TraceHandle per category and writes
//     ORB_TRACE(trace, 2, "key: addr={:#x}", key.address());
// A trace whose level is off costs one load and a branch; its arguments are not evaluated.
//
// Messages go to the sink, by default standard error: with the time and the process in front or,
// where it is a stream of the journal's, which knows both, with their priority. Writing is safe
// from any thread; sinks are exchanged while no other thread traces.

#include <fmt/core.h>

#include <atomic>
#include <memory>
#include <string_view>

#include "Orb/Export.h"

namespace Orb {

// One category's switch. Handles are static objects; several may name the same category.
class ORB_EXPORT TraceHandle {
 public:
  // `category` must outlive the handle (a literal).
  explicit TraceHandle(const char* category);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  bool isOn(int level) const { return level <= level_.load(std::memory_order_relaxed); }
  std::string_view category() const { return category_; }

  template <class... Args>
  void write(int level, fmt::format_string<Args...> format, Args&&... args) const {
    vwrite(level, format, fmt::make_format_args(args...));
  }
  void vwrite(int level, fmt::string_view format, fmt::format_args args) const;

 private:
  friend class TraceRegistry;
  std::string_view category_;
  std::atomic<int> level_;
};

#define ORB_TRACE(handle, level, ...)                               \
  do {                                                              \
    if ((handle).isOn(level)) (handle).write((level), __VA_ARGS__); \
  } while (false)

// Where trace messages go.
class ORB_EXPORT TraceSink {
 public:
  virtual ~TraceSink();
  // `text` has no line end and may hold any bytes. Must not throw.
  virtual void message(std::string_view category, int level, std::string_view text) = 0;
  virtual void flush() {}
};

// Sets the highest level that `category` writes, -1 for none at all. "*" sets every category that
// has no level of its own, those that appear later included.
ORB_EXPORT void traceLevelIs(std::string_view category, int level);

// Applies a setting in the form of ORB_TRACE: "Category/level" items, separated by commas. An item
// without a level means 9. Items that cannot be read are reported at level 0 under "Trace".
ORB_EXPORT void traceSettingIs(std::string_view setting);

// Replaces the sink and returns the previous one; null brings back standard error.
ORB_EXPORT std::shared_ptr<TraceSink> traceSinkIs(std::shared_ptr<TraceSink> sink);

ORB_EXPORT void traceFlush();

// What goes in front of a line on standard error that belongs to that level: its priority, as in
// "<3>", where the journal takes the line, and nothing elsewhere.
ORB_EXPORT const char* journalPriority(int level);

}  // namespace Orb
