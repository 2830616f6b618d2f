#pragma once

// A client of an agent's socket, as a test is one.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "Orb/Descriptor.h"

namespace Korud {

using nlohmann::json;

inline sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

// A request about a register of a chip, or a field of it.
inline json request(const char* op, const char* chip, const char* reg, const char* field = nullptr,
                    const json& value = {}) {
  json all = {{"op", op}, {"chip", chip}, {"register", reg}};
  if (field) all["field"] = field;
  if (!value.is_null()) all["value"] = value;
  return all;
}

class Client {
 public:
  explicit Client(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    const sockaddr_un address = addressOf(path);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
      throw std::runtime_error("cannot connect to " + path);
    }
  }
  void send(const std::string& text) {
    if (::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
      throw std::runtime_error("the agent hung up");
    }
  }
  // Nothing more will be sent.
  void endSending() { ::shutdown(socket_.get(), SHUT_WR); }
  // The next line; throws when there is none within half a minute.
  std::string line() {
    size_t end;
    while ((end = in_.find('\n')) == std::string::npos) {
      pollfd wanted = {socket_.get(), POLLIN, 0};
      char piece[4096];
      if (::poll(&wanted, 1, 30000) <= 0) throw std::runtime_error("no answer");
      const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, 0);
      if (count <= 0) throw std::runtime_error("the agent hung up");
      in_.append(piece, static_cast<size_t>(count));
    }
    const std::string first = in_.substr(0, end);
    in_.erase(0, end + 1);
    return first;
  }
  json ask(const std::string& request) {
    send(request + "\n");
    return json::parse(line());
  }
  json ask(const json& request) { return ask(request.dump()); }
  json result(const json& request) {
    const json answer = ask(request);
    EXPECT_TRUE(answer.value("ok", false)) << answer;
    return answer.value("result", json());
  }
  void write(const char* reg, const char* field, uint32_t value, const char* chip = "chip0") {
    result(request("field.write", chip, reg, field, value));
  }
  uint32_t read(const char* reg, const char* field) {
    return result(request("field.read", "chip0", reg, field))["value"];
  }
  uint32_t hardware(const char* reg, const char* chip = "chip0") {
    return result(request("hw.read", chip, reg))["value"];
  }
  // What the agent says about a chip.
  json chip(const std::string& name) {
    for (const json& entry : result({{"op", "chip.list"}})) {
      if (entry["name"] == name) return entry;
    }
    return {{"name", name}, {"state", "gone"}};
  }

 private:
  Orb::Descriptor socket_;
  std::string in_;
};

}  // namespace Korud
