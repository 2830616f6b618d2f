#include "korureg/AgentClient.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "Shoal/StatePath.h"

namespace korureg {

namespace {

std::string socketPath(const AgentOptions& options) {
  if (!options.socket.empty()) return options.socket;
  Shoal::stateDirectoryIs(options.stateDirectory);
  return Shoal::stateDirectory() + "/korud.sock";
}

std::string reasonOf(int error) { return std::generic_category().message(error); }

[[noreturn]] void throwRefused(const nlohmann::ordered_json& error) {
  const auto kind = error.value("kind", "");
  const auto message = error.value("message", "the agent gave no reason");
  if (kind.starts_with("noSuch") || kind == "badValue" || kind == "badRequest") {
    throw UsageError(message);
  }
  throw Failure(message);
}

}  // namespace

void addAgentOptions(CLI::App& command, AgentOptions& options) {
  command.add_option("--socket", options.socket, "the agent's socket")->type_name("PATH");
  command.add_option("--state-dir", options.stateDirectory, "where the agent's korud.sock lies")
      ->type_name("DIR");
}

AgentClient::AgentClient(const AgentOptions& options) : path_(socketPath(options)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    throw UsageError(fmt::format("the path of the socket is too long: {}", path_));
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  socket_ = Orb::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket_ &&
      ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return;
  }
  if (errno == ENOENT || errno == ECONNREFUSED) {
    throw Failure(fmt::format("no agent listens at {}; start korud, or name its socket", path_));
  }
  throw Failure(fmt::format("cannot reach the agent at {}: {}", path_, reasonOf(errno)));
}

nlohmann::ordered_json AgentClient::ask(const nlohmann::ordered_json& request) {
  const std::string text =
      request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count =
        ::send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failure(fmt::format("the agent hung up: {}", reasonOf(errno)));
    sent += static_cast<size_t>(count);
  }
  const auto answer = nlohmann::ordered_json::parse(line(), nullptr, false);
  if (!answer.is_object()) throw Failure("the agent's answer makes no sense");
  if (answer.value("ok", false)) return answer.value("result", nlohmann::ordered_json());
  throwRefused(answer.value("error", nlohmann::ordered_json::object()));
}

std::string AgentClient::line() {
  size_t end;
  while ((end = in_.find('\n')) == std::string::npos) {
    char piece[1 << 16];
    const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw Failure("the agent hung up before it answered");
    in_.append(piece, static_cast<size_t>(count));
  }
  std::string first = in_.substr(0, end);
  in_.erase(0, end + 1);
  return first;
}

}  // namespace korureg
