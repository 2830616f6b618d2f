#include "korureg/AgentClient.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "Shoal/StatePath.h"
#include "board/service/JsonText.h"
#include "korureg/AgentNames.h"

namespace korureg {

namespace {

constexpr size_t longestAnswer = 1 << 28;

std::string reasonOf(int error) { return std::generic_category().message(error); }

[[noreturn]] void throwRefused(const nlohmann::ordered_json& error) {
  const auto kind = error.value("kind", "");
  const auto message = error.value("message", "the agent gave no reason");
  if (kind.starts_with("noSuch")) throw NoSuchName(message, kind);
  if (kind == "badValue" || kind == "badRequest") throw UsageError(message);
  throw Refusal(message);
}

// Whatever it is that answers.
nlohmann::ordered_json parsed(const std::string& text) {
  if (Board::isTooDeep(text)) throw Failure(AgentClient::senseless);
  try {
    auto answer = nlohmann::ordered_json::parse(text);
    if (answer.is_object()) return answer;
  } catch (const nlohmann::json::exception&) {
  }
  throw Failure(AgentClient::senseless);
}

nlohmann::ordered_json resultOf(const nlohmann::ordered_json& answer) {
  try {
    if (answer.value("ok", false)) return answer.value("result", nlohmann::ordered_json());
    throwRefused(answer.value("error", nlohmann::ordered_json::object()));
  } catch (const nlohmann::json::exception&) {
    throw Failure(AgentClient::senseless);
  }
}

}  // namespace

std::string socketPath(const AgentOptions& options) {
  if (!options.socket.empty()) return options.socket;
  Shoal::stateDirectoryIs(options.stateDirectory);
  return Shoal::stateDirectory() + "/korud.sock";
}

void addAgentOptions(Command command, AgentOptions& options) {
  command.option("--socket", "PATH", options.socket, "the agent's socket");
  command.option("--state-dir", "DIR", options.stateDirectory, "where the agent's korud.sock lies");
  command.seconds("--timeout", options.timeout, "how long an answer is waited for", 0.001);
}

AgentClient::AgentClient(const AgentOptions& options, Unconnected)
    : path_(socketPath(options)),
      patience_(std::chrono::microseconds(static_cast<int64_t>(options.timeout * 1e6))) {}

AgentClient::AgentClient(const AgentOptions& options) : AgentClient(options, Unconnected{}) {
  if (const int error = connect()) throwUnreachable(error);
}

std::optional<AgentClient> AgentClient::ifThere(const AgentOptions& options) {
  AgentClient client(options, Unconnected{});
  const int error = client.connect();
  if (error == 0) return client;
  if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) return std::nullopt;
  client.throwUnreachable(error);
}

// 0, or the errno.
int AgentClient::connect() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    throw UsageError(fmt::format("the path of the socket is too long: {}", path_));
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  socket_ = Orb::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket_) throw Failure(fmt::format("cannot make a socket: {}", reasonOf(errno)));
  // An agent that accepts nobody has the next client wait.
  timeval limit = {};  // (whose members are narrower on some machines)
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(patience_.count() / 1000000);
  limit.tv_usec = static_cast<decltype(limit.tv_usec)>(patience_.count() % 1000000);
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(socket_.get(), generic, sizeof address) == 0 ? 0 : errno;
}

void AgentClient::throwUnreachable(int error) const {
  if (error == ENOENT || error == ECONNREFUSED) {
    throw Failure(fmt::format("no agent listens at {}; start korud, or name its socket", path_));
  }
  if (error == EAGAIN) {
    throw Failure(fmt::format("the agent at {} takes nobody within {}", path_, patienceText()));
  }
  throw Failure(fmt::format("cannot reach the agent at {}: {}", path_, reasonOf(error)));
}

nlohmann::ordered_json AgentClient::ask(const nlohmann::ordered_json& request) {
  try {
    return askPlainly(request);
  } catch (const NoSuchName& e) {
    throw UsageError(e.what() + nearestNames(*this, request, e.kind()));
  }
}

nlohmann::ordered_json AgentClient::askPlainly(const nlohmann::ordered_json& request) {
  const std::string text =
      request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  const auto deadline = Clock::now() + patience_;
  for (size_t sent = 0; sent < text.size();) {
    await(POLLOUT, deadline);
    const ssize_t count =
        ::send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count < 0) break;  // it has hung up, perhaps with an answer that says why
    sent += static_cast<size_t>(count);
  }
  while (true) {
    nlohmann::ordered_json answer = parsed(line(deadline));
    if (!answer.contains("event")) return resultOf(answer);
    events_.push_back(std::move(answer));
  }
}

std::optional<nlohmann::ordered_json> AgentClient::event(
    std::optional<std::chrono::milliseconds> within) {
  while (events_.empty()) {
    if (const auto first = lineAtHand()) return parsed(*first);
    // As long as nothing happens, nothing is printed that would tell that its reader is gone.
    pollfd wanted[] = {{socket_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    const int found = ::poll(wanted, 2, within ? static_cast<int>(within->count()) : -1);
    if (found == 0) return std::nullopt;
    if (wanted[1].revents != 0) throw Failure("nobody reads standard output");
    if (found > 0 && !receive()) throw Failure("the agent has hung up");
  }
  return firstEvent();
}

std::optional<nlohmann::ordered_json> AgentClient::eventAtHand() {
  while (events_.empty()) {
    if (const auto first = lineAtHand()) return parsed(*first);
    pollfd wanted = {socket_.get(), POLLIN, 0};
    if (::poll(&wanted, 1, 0) <= 0) return std::nullopt;
    if (!receive()) throw Failure("the agent has hung up");
  }
  return firstEvent();
}

nlohmann::ordered_json AgentClient::firstEvent() {
  nlohmann::ordered_json first = std::move(events_.front());
  events_.pop_front();
  return first;
}

std::string AgentClient::patienceText() const {
  return fmt::format("{:g} s", static_cast<double>(patience_.count()) / 1e6);
}

void AgentClient::await(short events, Clock::time_point deadline) const {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd wanted = {socket_.get(), events, 0};
    const int found = ::poll(&wanted, 1, std::max(0, static_cast<int>(left.count())));
    // (There may always be something, and never the answer.)
    if (found > 0 && left.count() > 0) return;
    if (found >= 0) {
      throw Failure(
          fmt::format("the agent at {} does not answer within {}", path_, patienceText()));
    }
    if (errno != EINTR) throw Failure(fmt::format("cannot wait: {}", reasonOf(errno)));
  }
}

// Takes what there is; false when there will be no more.
bool AgentClient::receive() {
  char piece[1 << 16];
  const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, MSG_DONTWAIT);
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (count <= 0) return false;
  if (in_.size() > longestAnswer) throw Failure(senseless);
  in_.append(piece, static_cast<size_t>(count));
  return true;
}

std::string AgentClient::line(Clock::time_point deadline) {
  while (true) {
    if (auto first = lineAtHand()) return *std::move(first);
    await(POLLIN, deadline);
    if (!receive()) throw Failure("the agent hung up before it answered");
  }
}

std::optional<std::string> AgentClient::lineAtHand() {
  const size_t end = in_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string first = in_.substr(0, end);
  in_.erase(0, end + 1);
  return first;
}

}  // namespace korureg
