#include "korureg/TimePoint.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <ctime>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace korureg {

namespace {

constexpr int64_t nanoseconds = 1'000'000'000;
constexpr int64_t mostAgo = 100 * 365 * 86'400LL;  // seconds

std::optional<int64_t> secondsIn(const std::string& text) {
  int64_t count = 0;
  const char* const end = text.data() + text.size();
  const auto [unit, error] = std::from_chars(text.data(), end, count);
  if (error != std::errc() || unit + 1 != end || count < 0 || count > mostAgo) return std::nullopt;
  const int64_t lengths[] = {1, 60, 3600, 86'400};
  const size_t which = std::string_view("smhd").find(*unit);
  if (which == std::string_view::npos || count > mostAgo / lengths[which]) return std::nullopt;
  return count * lengths[which];
}

std::optional<int64_t> localTime(const std::string& text) {
  constexpr std::pair<const char*, size_t> forms[] = {
      {"%Y-%m-%dT%H:%M:%S", 19}, {"%Y-%m-%dT%H:%M", 16}, {"%Y-%m-%d", 10}};
  for (const auto& [form, size] : forms) {
    if (text.size() != size) continue;
    std::tm time = {};
    time.tm_isdst = -1;
    std::istringstream in(text);
    in >> std::get_time(&time, form);
    if (!in || in.peek() != std::istringstream::traits_type::eof()) continue;
    if (const std::time_t seconds = std::mktime(&time); seconds != -1) return seconds;
  }
  return std::nullopt;
}

}  // namespace

int64_t timePointOf(const std::string& text) {
  using namespace std::chrono;
  const int64_t now =
      duration_cast<std::chrono::nanoseconds>(system_clock::now().time_since_epoch()).count();
  if (const auto ago = secondsIn(text)) return now - *ago * nanoseconds;
  if (const auto time = localTime(text); time && *time < INT64_MAX / nanoseconds) {
    return *time * nanoseconds;
  }
  throw std::invalid_argument(
      fmt::format("'{}' is no time: 30s, 10m, 2h or 1d ago, or 2026-01-31T14:05", text));
}

std::chrono::seconds lengthOf(const std::string& text) {
  if (const auto seconds = secondsIn(text)) return std::chrono::seconds(*seconds);
  throw std::invalid_argument(fmt::format("'{}' is no length of time: 30s, 10m or 2h", text));
}

}  // namespace korureg
