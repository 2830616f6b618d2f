#include "korureg/web/HttpServer.h"

#include <fmt/format.h>
#include <microhttpd.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include "korureg/Command.h"

namespace korureg::web {

namespace {

using std::chrono::seconds;

constexpr unsigned mostConnections = 64;
constexpr unsigned mostOfOneAddress = 32;
constexpr size_t connectionMemory = 32 * 1024;  // of which a request's head has to take less
constexpr unsigned silence = 30;                // seconds without a byte
constexpr seconds toAsk(8);                     // for a whole request, from the one before
constexpr seconds toListen(60);                 // for a whole answer
constexpr size_t nonceBytes = 16;
constexpr size_t streamBlock = 4096;

MHD_Result resultOf(int result) { return result == MHD_YES ? MHD_YES : MHD_NO; }

std::string headerOf(MHD_Connection* connection, const char* name) {
  const char* const text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return text ? text : "";
}

// The page is asked for by its address alone.
std::string tokenOf(MHD_Connection* connection, bool isPage) {
  if (!isPage) return headerOf(connection, "X-Koru-Token");
  const char* const text = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "token");
  return text ? text : "";
}

// What every answer says: nobody keeps it, guesses what it is, or has it in a frame.
void addHeaders(MHD_Response* response, const char* type, const std::string& nonce) {
  std::string policy = "default-src 'none'; frame-ancestors 'none'; base-uri 'none'";
  if (!nonce.empty()) {
    policy += fmt::format(
        "; script-src 'nonce-{0}'; style-src 'nonce-{0}'; connect-src 'self'; img-src data:; "
        "form-action 'none'; require-trusted-types-for 'script'",
        nonce);
  }
  const std::pair<const char*, const char*> headers[] = {
      {"Content-Type", type},
      {"Content-Security-Policy", policy.c_str()},
      {"Cache-Control", "no-store"},
      {"X-Content-Type-Options", "nosniff"},
      {"X-Frame-Options", "DENY"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Opener-Policy", "same-origin"},
      {"Cross-Origin-Resource-Policy", "same-origin"}};
  for (const auto& [name, value] : headers) MHD_add_response_header(response, name, value);
}

}  // namespace

// A connection, and until when it has to have said or taken what is its turn.
struct HttpServer::Visit {
  MHD_Connection* connection;
  int socket;
  Clock::time_point deadline;
  bool isAsleep = false;

  void sleep() {
    isAsleep = true;
    deadline = never;
    MHD_suspend_connection(connection);
  }
  void wake() {
    if (std::exchange(isAsleep, false)) MHD_resume_connection(connection);
  }
};

// A request that may pass, and its answer.
struct HttpServer::Exchange {
  Visit& visit;
  std::string path;
  std::string body = {};
  bool isAsked = false;
  std::optional<Reply> reply = {};
};

struct HttpServer::Calls {
  using Kept = std::shared_ptr<Exchange>;

  static MHD_Result access(void* server, MHD_Connection* connection, const char* path,
                           const char* method, const char*, const char* data, size_t* size,
                           void** place) {
    auto& self = *static_cast<HttpServer*>(server);
    if (!*place) {
      Exchange* made = nullptr;
      const int result = self.begin(connection, path, method, made);
      if (made) *place = new Kept(made);
      return resultOf(result);
    }
    const Kept exchange = *static_cast<Kept*>(*place);
    if (*size != 0) {
      if (exchange->body.size() + *size > longestBody) return MHD_NO;
      exchange->body.append(data, std::exchange(*size, 0));
      return MHD_YES;
    }
    if (exchange->path == "/events") return resultOf(self.sendStream(connection));
    if (!std::exchange(exchange->isAsked, true)) {
      self.offers_.posted(exchange->path, exchange->body,
                          [weak = std::weak_ptr(exchange)](Reply reply) {
                            const Kept waiting = weak.lock();
                            if (!waiting || waiting->reply) return;
                            waiting->reply = std::move(reply);
                            waiting->visit.wake();
                          });
    }
    return resultOf(self.answer(connection, *exchange));
  }

  static void completed(void*, MHD_Connection* connection, void** place,
                        MHD_RequestTerminationCode) {
    delete static_cast<Kept*>(*place);
    *place = nullptr;
    if (Visit* const visit = visitOf(connection)) visit->deadline = Clock::now() + toAsk;
  }

  static void connected(void* server, MHD_Connection* connection, void** place,
                        MHD_ConnectionNotificationCode what) {
    auto& visits = static_cast<HttpServer*>(server)->visits_;
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
      const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
      visits.push_back({connection, info->connect_fd, Clock::now() + toAsk});
      *place = &visits.back();
    } else {
      visits.remove_if([&](const Visit& visit) { return &visit == *place; });
      *place = nullptr;
    }
  }

  static Visit* visitOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<Visit*>(info->socket_context) : nullptr;
  }

  struct Listener {
    Visit& visit;
    std::shared_ptr<Stream> stream;
  };
  static ssize_t streamed(void* place, uint64_t, char* to, size_t room) {
    const auto& [visit, stream] = *static_cast<Listener*>(place);
    stream->wake = nullptr;
    const size_t count = stream->take(to, room);
    if (count == 0) {
      stream->wake = [&visit = visit] { visit.wake(); };
      visit.sleep();
    }
    return static_cast<ssize_t>(count);
  }
  static void streamEnded(void* place) {
    const std::unique_ptr<Listener> listener(static_cast<Listener*>(place));
    listener->stream->wake = nullptr;
  }
};

HttpServer::HttpServer(Orb::Descriptor listener, const Gate& gate, Offers offers)
    : gate_(gate), offers_(std::move(offers)), listener_(std::move(listener)) {
  // (The library closes what it is given.)
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &Calls::access, this,
      MHD_OPTION_LISTEN_SOCKET, ::dup(listener_.get()), MHD_OPTION_CONNECTION_LIMIT,
      mostConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, mostOfOneAddress,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory, MHD_OPTION_CONNECTION_TIMEOUT, silence,
      MHD_OPTION_NOTIFY_COMPLETED, &Calls::completed, this, MHD_OPTION_NOTIFY_CONNECTION,
      &Calls::connected, this, MHD_OPTION_END);
  if (!daemon_) throw Failure("the HTTP server cannot be started");
}

HttpServer::~HttpServer() {
  for (Visit& visit : visits_) visit.wake();
  MHD_stop_daemon(daemon_);
}

int HttpServer::descriptor() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

void HttpServer::serve(Clock::time_point now) {
  for (Visit& visit : visits_) {
    if (visit.deadline > now) continue;
    visit.deadline = never;
    ::shutdown(visit.socket, SHUT_RDWR);
  }
  MHD_run(daemon_);
}

Clock::time_point HttpServer::next(Clock::time_point now) const {
  MHD_UNSIGNED_LONG_LONG milliseconds = 0;
  Clock::time_point due = never;
  if (MHD_get_timeout(daemon_, &milliseconds) == MHD_YES) {
    due = now + std::chrono::milliseconds(milliseconds);
  }
  for (const Visit& visit : visits_) due = std::min(due, visit.deadline);
  return due;
}

int HttpServer::begin(MHD_Connection* connection, const char* path, const char* method,
                      Exchange*& exchange) {
  const bool isGet = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
  const Refused refused = gate_.pass({.method = method,
                                      .path = path,
                                      .host = headerOf(connection, MHD_HTTP_HEADER_HOST),
                                      .origin = headerOf(connection, "Origin"),
                                      .token = tokenOf(connection, isGet)});
  if (refused.status != 0) return refuse(connection, refused);
  if (isGet) return sendPage(connection);
  const std::string length = headerOf(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  size_t size = 0;
  const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), size);
  if (length.empty() || error != std::errc()) {
    return refuse(connection, {411, "the request has to say how long it is"});
  }
  if (size > longestBody) return refuse(connection, {413, "the request is too long"});
  exchange = new Exchange{*Calls::visitOf(connection), path};
  return MHD_YES;
}

int HttpServer::refuse(MHD_Connection* connection, const Refused& refused) {
  return send(connection, {refused.status, fmt::format("{}\n", refused.why), "text/plain"}, "");
}

int HttpServer::answer(MHD_Connection* connection, Exchange& exchange) {
  if (exchange.reply) return send(connection, *exchange.reply, "");
  exchange.visit.sleep();
  return MHD_YES;
}

int HttpServer::sendPage(MHD_Connection* connection) {
  const std::string nonce = randomText(nonceBytes);
  return send(connection, {200, offers_.page(nonce), "text/html; charset=utf-8"}, nonce);
}

int HttpServer::send(MHD_Connection* connection, const Reply& reply, const std::string& nonce) {
  MHD_Response* const response = MHD_create_response_from_buffer(
      reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
  if (!response) return MHD_NO;
  addHeaders(response, reply.type, nonce);
  Calls::visitOf(connection)->deadline = Clock::now() + toListen;
  const int result = MHD_queue_response(connection, reply.status, response);
  MHD_destroy_response(response);
  return result;
}

int HttpServer::sendStream(MHD_Connection* connection) {
  std::shared_ptr<Stream> stream = offers_.listens();
  if (!stream) return refuse(connection, {503, "too many pages listen already"});
  Visit& visit = *Calls::visitOf(connection);
  auto listener = std::make_unique<Calls::Listener>(Calls::Listener{visit, std::move(stream)});
  MHD_Response* const response = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, streamBlock, &Calls::streamed, listener.get(), &Calls::streamEnded);
  if (!response) return MHD_NO;
  static_cast<void>(listener.release());  // the response has it
  addHeaders(response, "text/event-stream", "");
  visit.deadline = never;
  const int result = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return result;
}

}  // namespace korureg::web
