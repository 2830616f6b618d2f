#include "agent/ServiceManager.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "Orb/Errno.h"
#include "Orb/Trace.h"

namespace Agent {

namespace {

using std::chrono::microseconds;

constexpr std::chrono::milliseconds retryAfter{100};
constexpr size_t mostUntold = 16;
constexpr microseconds shortestWatchdog{1000};
constexpr microseconds longestWatchdog = std::chrono::hours(24);
constexpr std::string_view statusKey = "STATUS=";

Orb::TraceHandle trace("korud");

std::optional<uint64_t> numberIn(std::string_view text) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// A path, or "@name" for one outside of the file system.
std::string addressOf(const char* variable) {
  std::string address = variable == nullptr ? "" : variable;
  if (address.empty()) return address;
  const bool isKnown = address[0] == '/' || address[0] == '@';
  if (!isKnown || address.size() < 2 || address.size() >= sizeof(sockaddr_un::sun_path)) {
    ORB_TRACE(trace, 0, "$NOTIFY_SOCKET is no address of a socket; nobody is told anything");
    return "";
  }
  if (address[0] == '@') address[0] = '\0';
  return address;
}

// How long the manager waits for a sign of life of this process.
std::optional<microseconds> watchdogTime(const char* time, const char* process) {
  if (time == nullptr) return std::nullopt;
  const auto wanted = numberIn(time);
  if (!wanted || *wanted == 0) {
    ORB_TRACE(trace, 0, "$WATCHDOG_USEC is no time; there will be no signs of life");
    return std::nullopt;
  }
  if (process != nullptr && numberIn(process) != static_cast<uint64_t>(::getpid())) {
    return std::nullopt;
  }
  const auto most = static_cast<uint64_t>(longestWatchdog.count());
  return std::max(shortestWatchdog, microseconds(std::min(*wanted, most)));
}

}  // namespace

ServiceManager::ServiceManager() : address_(addressOf(std::getenv("NOTIFY_SOCKET"))) {
  if (address_.empty()) return;
  socket_ = Orb::Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket_) Orb::throwErrno("cannot make a socket for the service manager");
  const auto time = watchdogTime(std::getenv("WATCHDOG_USEC"), std::getenv("WATCHDOG_PID"));
  if (!time) return;
  watchdog_ = Orb::eventLoop().every(*time / 2, [this] { watchdog(); });
}

void ServiceManager::ready() { tell("READY=1"); }

void ServiceManager::reloading() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  tell(fmt::format("RELOADING=1\nMONOTONIC_USEC={}",
                   int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000));
}

void ServiceManager::stopping() { tell("STOPPING=1"); }

void ServiceManager::statusIs(const std::string& text) {
  if (text == status_) return;
  status_ = text;
  // Only the last one counts.
  std::erase_if(untold_, [](const std::string& message) { return message.starts_with(statusKey); });
  tell(std::string(statusKey) + text);
}

// One that is not taken now is worth nothing later.
void ServiceManager::watchdog() {
  if (untold_.empty()) tell("WATCHDOG=1");
}

void ServiceManager::tell(std::string message) {
  if (address_.empty()) return;
  if (untold_.size() == mostUntold) untold_.pop_front();
  untold_.push_back(std::move(message));
  deliver();
}

void ServiceManager::deliver() {
  sockaddr_un to = {};
  to.sun_family = AF_UNIX;
  std::memcpy(to.sun_path, address_.data(), address_.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  later_.reset();
  for (; !untold_.empty(); untold_.pop_front()) {
    const std::string& message = untold_.front();
    if (::sendto(socket_.get(), message.data(), message.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&to), size) >= 0) {
      continue;
    }
    // Its queue is full. Anything else means that nobody is there any more.
    if (errno != EAGAIN && errno != ENOBUFS) continue;
    later_ = Orb::eventLoop().after(retryAfter, [this] { deliver(); });
    return;
  }
}

}  // namespace Agent
