#include "board/service/Server.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "Orb/DescriptorReserve.h"
#include "Orb/Trace.h"
#include "board/devices/BusRecorder.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Connection.h"
#include "board/service/internal/Requests.h"
#include "board/service/internal/Scrape.h"
#include "board/service/internal/Turns.h"
#include "board/service/internal/UnixListener.h"

namespace Board {

namespace {

using nlohmann::ordered_json;

constexpr int mostAtOnce = 64;
constexpr std::chrono::milliseconds pauseLength{500};
Orb::TraceHandle trace("korud");

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

void Server::scrapeAt(const std::string& place) {
  scrape_.reset();
  scrape_ = std::make_unique<Scrape>(place, [this] { return requests_->metricsText(); });
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
            hearNoBus(from);
            clients_.erase(&from);
            requests_->clientsAre(clients_.size());
          },
          [this] {
            keeper_.holdRecords();
            requests_->roundBegins();
          },
          [this] { keeper_.keepRecords(); }});
  clients_[client.get()] = client;
  requests_->clientsAre(clients_.size());
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
  const auto hearBus = [&](const std::string& chip) {
    busSubscriptions_[&from].insert(chip);
    keeper_.busRecorder(chip).isWantedIs(true);
  };
  const BoardKeeper::ActingFor acting(keeper_, from.peer());
  requests_->handle(*request, reply,
                    {subscribe, unsubscribe, list, hearBus, [&] { return hearNoBus(from); }});
}

void Server::publish(const std::string& chip, const std::string& event) {
  std::vector<Client> wanting;
  for (const auto& [connection, chips] : subscriptions_) {
    if (chips.contains("") || chips.contains(chip)) wanting.push_back(clients_[connection]);
  }
  // Sending may drop a client.
  for (const Client& client : wanting) client->send(event);
}

// The chips that it has heard of.
std::vector<std::string> Server::hearNoBus(const Connection& client) {
  const auto heard = busSubscriptions_.find(&client);
  if (heard == busSubscriptions_.end()) return {};
  std::vector<std::string> chips(heard->second.begin(), heard->second.end());
  busSubscriptions_.erase(heard);
  for (const std::string& chip : chips) {
    const bool isWanted =
        std::any_of(busSubscriptions_.begin(), busSubscriptions_.end(),
                    [&](const auto& other) { return other.second.contains(chip); });
    keeper_.busRecorder(chip).isWantedIs(isWanted);
  }
  return chips;
}

void Server::busAccessed(const std::string& chip, const BusAccess& access, uint64_t number) {
  std::vector<Client> wanting;
  for (const auto& [connection, chips] : busSubscriptions_) {
    if (chips.contains(chip)) wanting.push_back(clients_[connection]);
  }
  const std::string event = jsonText(Requests::busEvent(chip, access, number));
  for (const Client& client : wanting) client->offer(event);
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
