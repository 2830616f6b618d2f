#pragma once

// HTTP: takes requests that may pass, and gives back what is answered, at once or later. Whoever is
// slow, silent, or says too much holds up nobody: connections are few, and each has its time. One
// thread, which serves it when descriptor() can be read.

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "Orb/Descriptor.h"
#include "korureg/web/Clock.h"
#include "korureg/web/Gate.h"
#include "korureg/web/Stream.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace korureg::web {

struct Reply {
  unsigned status = 200;
  std::string body;
  const char* type = "application/json";
};

// Kept until it is called, once; what is called too late is not heard.
using Answer = std::function<void(Reply)>;

// What there is to be had.
struct Offers {
  // The page, whose scripts and styles bear the word.
  std::function<std::string(const std::string& nonce)> page;
  std::function<void(const std::string& path, const std::string& body, Answer answer)> posted;
  // Somebody listens from now on; null when there are too many of them.
  std::function<std::shared_ptr<Stream>()> listens;
};

class HttpServer {
 public:
  static constexpr size_t longestBody = 65536;

  // Throws Failure.
  HttpServer(Orb::Descriptor listener, const Gate& gate, Offers offers);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int descriptor() const;
  void serve(Clock::time_point now);
  // When it has to be served though nobody says anything.
  Clock::time_point next(Clock::time_point now) const;

 private:
  struct Visit;
  struct Exchange;
  struct Calls;  // by the library

  int begin(MHD_Connection* connection, const char* path, const char* method, Exchange*& exchange);
  int refuse(MHD_Connection* connection, const Refused& refused);
  int answer(MHD_Connection* connection, Exchange& exchange);
  int sendPage(MHD_Connection* connection);
  int sendStream(MHD_Connection* connection);
  int send(MHD_Connection* connection, const Reply& reply, const std::string& nonce);

  const Gate& gate_;
  const Offers offers_;
  Orb::Descriptor listener_;
  std::list<Visit> visits_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace korureg::web
