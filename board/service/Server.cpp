#include "board/service/Server.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "Orb/DescriptorReserve.h"
#include "Orb/Errno.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Connection.h"
#include "board/service/internal/Requests.h"
#include "board/service/internal/Turns.h"

namespace Board {

namespace {

using nlohmann::ordered_json;

constexpr int mostAtOnce = 64;
constexpr int backlog = 64;
constexpr mode_t socketMode = 0660;
constexpr std::chrono::milliseconds pauseLength{500};
Orb::TraceHandle trace("korud");

Orb::Descriptor newSocket(const std::string& path) {
  Orb::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) Orb::throwErrno("cannot listen at {}", path);
  return socket;
}

Orb::Descriptor listenAt(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error(fmt::format("cannot listen at {}: the path has more than {} bytes",
                                         path, sizeof address.sun_path - 1));
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const Orb::Descriptor probe = newSocket(path);
  // (Somebody who is busy has us wait: EAGAIN.)
  if (::connect(probe.get(), generic, sizeof address) == 0 || errno == EAGAIN) {
    throw std::runtime_error(fmt::format("cannot listen at {}: somebody does already", path));
  }
  if (errno != ECONNREFUSED && errno != ENOENT) Orb::throwErrno("cannot listen at {}", path);
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) {
      throw std::runtime_error(fmt::format("cannot listen at {}: it is no socket", path));
    }
    ::unlink(path.c_str());
  }
  Orb::Descriptor socket = newSocket(path);
  // Nobody can connect before listen(), so nobody gets in between with another mode.
  if (::bind(socket.get(), generic, sizeof address) != 0)
    Orb::throwErrno("cannot listen at {}", path);
  Shoal::setFileGroup(path);
  if (::chmod(path.c_str(), socketMode) != 0 || ::listen(socket.get(), backlog) != 0) {
    Orb::throwErrno("cannot listen at {}", path);
  }
  return socket;
}

uint64_t nodeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Server::Server(BoardKeeper& keeper, std::string path)
    : keeper_(keeper),
      requests_(std::make_unique<Requests>(keeper)),
      turns_(std::make_unique<Turns>()),
      path_(std::move(path)),
      listener_(listenAt(path_)),
      node_(nodeOf(path_)) {
  listen();
  keeper_.observe(*this);
}

Server::~Server() {
  keeper_.forget(*this);
  if (nodeOf(path_) == node_) ::unlink(path_.c_str());
}

void Server::listen() {
  watch_ = Orb::eventLoop().readable(listener_.get(), [this] { acceptAll(); });
}

void Server::acceptAll() {
  // So many a turn, so that a flood of clients holds up nobody.
  for (int count = 0; count < mostAtOnce; ++count) {
    Orb::Descriptor socket(
        ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (isShortage(errno)) pause();
      return;
    }
    if (const std::string why = whyNot(socket); !why.empty()) {
      if (refusal_.isDue()) ORB_TRACE(trace, 0, "a client was refused: {}", why);
      const std::string line = jsonText(errorReply(nullptr, "refused", why)) + '\n';
      ::send(socket.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      continue;
    }
    serve(std::move(socket));
  }
}

// The client waits, and would have the loop spin.
void Server::pause() {
  if (shortage_.isDue()) {
    ORB_TRACE(trace, 0, "there is no descriptor for a client; tried again every {} ms",
              pauseLength.count());
  }
  watch_ = Orb::eventLoop().after(pauseLength, [this] {
    const auto timer = std::move(watch_);
    listen();
  });
}

// Each client may take a second descriptor, for what it has not read yet.
std::string Server::whyNot(const Orb::Descriptor& socket) const {
  if (clients_.size() >= mostClients)
    return fmt::format("{} clients are served already", mostClients);
  const auto reserve = Orb::DescriptorReserve::now();
  if (!reserve.isReachedBy(socket.get(), clients_.size())) return {};
  return fmt::format("the last {} of {} descriptors are kept for the chips", reserve.kept,
                     reserve.limit);
}

void Server::serve(Orb::Descriptor socket) {
  const auto client = std::make_shared<Connection>(
      std::move(socket), *turns_,
      Connection::Callbacks{
          [this](Connection& from, std::string_view line) { handle(from, line); },
          [](Connection& from) {
            from.send(jsonText(
                errorReply(nullptr, "badRequest",
                           fmt::format("a line has at most {} bytes", Connection::longestLine))));
          },
          [this](Connection& from) {
            subscriptions_.erase(&from);
            clients_.erase(&from);
          },
          [this] { requests_->roundBegins(); }});
  clients_[client.get()] = client;
  client->start();
}

void Server::handle(Connection& from, std::string_view line) {
  const auto reply = [weak = from.weak_from_this(),
                      awaited = from.awaited()](const std::string& answer) {
    // The client may be gone when the answer comes.
    if (const auto client = weak.lock()) client->send(answer);
  };
  const auto refuse = [&](const std::string& why) {
    reply(jsonText(errorReply(nullptr, "badRequest", why)));
  };
  auto request = plainObject(line);
  if (!request) {
    if (isTooDeep(line)) {
      return refuse(fmt::format("a request has at most {} arrays and objects within each other",
                                deepestJson));
    }
    request = ordered_json::parse(line, nullptr, false);
    if (request->is_discarded() || !request->is_object()) {
      return refuse("a request is a JSON object in one line");
    }
  }
  const auto subscribe = [&](const std::string& chip) { subscriptions_[&from].insert(chip); };
  const auto unsubscribe = [&] { subscriptions_.erase(&from); };
  const auto list = [&](std::unique_ptr<Pieces> answer) { from.send(std::move(answer)); };
  const BoardKeeper::ActingFor acting(keeper_, from.peer());
  requests_->handle(*request, reply, {subscribe, unsubscribe, list});
}

void Server::publish(const std::string& chip, const std::string& event) {
  std::vector<Client> wanting;
  for (const auto& [connection, chips] : subscriptions_) {
    if (chips.contains("") || chips.contains(chip)) wanting.push_back(clients_[connection]);
  }
  // Sending may drop a client.
  for (const Client& client : wanting) client->send(event);
}

void Server::chipChanged(const std::string& chip) {
  if (subscriptions_.empty()) return;
  publish(chip, jsonText(requests_->chipEvent(chip)));
}

void Server::fieldChanged(const std::string& chip, const KoruRegFile::LogicalFieldName& field) {
  if (subscriptions_.empty()) return;
  publish(chip, jsonText(requests_->fieldEvent(chip, field)));
}

void Server::fieldSent(const std::string& chip, const Orb::String& reg, const Orb::String& field,
                       uint32_t value) {
  if (!subscriptions_.empty())
    publish(chip, jsonText(Requests::sentEvent(chip, reg, field, value)));
}

void Server::chipDrifted(const std::string& chip, const Drift& drift) {
  if (!subscriptions_.empty()) publish(chip, jsonText(Requests::driftEvent(chip, drift)));
}

void Server::chipWasReset(const std::string& chip, const std::string& why) {
  if (!subscriptions_.empty()) publish(chip, jsonText(Requests::resetEvent(chip, why)));
}

}  // namespace Board
