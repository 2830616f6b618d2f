#pragma once

// Something that listens in an agent's place, and answers whatever it was told to.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/agent/Client.h"

class FakeAgent {
 public:
  using Answers = std::map<std::string, std::string>;  // by operation; lines, without the last end
  static inline const std::string hangsUp = "hangs up";
  static inline const std::string saysNothing = "says nothing";

  static std::string result(const std::string& json) {
    return R"({"ok": true, "result": )" + json + "}";
  }
  static std::string error(const std::string& kind, const std::string& message) {
    return nlohmann::json({{"error", {{"kind", kind}, {"message", message}}}}).dump();
  }

  FakeAgent(const std::string& path, Answers answers)
      : answers_(std::move(answers)), listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    ::unlink(path.c_str());
    const sockaddr_un address = Korud::addressOf(path);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeAgent() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  // What it was asked since the last call.
  std::vector<nlohmann::json> requests() {
    const std::lock_guard guard(mutex_);
    return std::exchange(requests_, {});
  }

 private:
  void serve() {
    while (true) {
      const Orb::Descriptor client(::accept(listener_.get(), nullptr, nullptr));
      if (!client) return;
      std::string in;
      char piece[4096];
      for (ssize_t got; (got = ::recv(client.get(), piece, sizeof piece, 0)) > 0;) {
        in.append(piece, static_cast<size_t>(got));
        size_t end;
        bool stays = true;
        while (stays && (end = in.find('\n')) != std::string::npos) {
          stays = answer(client.get(), in.substr(0, end));
          in.erase(0, end + 1);
        }
        if (!stays) break;
      }
    }
  }
  bool answer(int client, const std::string& line) {
    const auto asked = nlohmann::json::parse(line);
    {
      const std::lock_guard guard(mutex_);
      requests_.push_back(asked);
    }
    const auto found = answers_.find(asked["op"]);
    const std::string text = found == answers_.end()
                                 ? error("unknownOperation", "there is no such thing")
                                 : found->second;
    if (text == hangsUp) return false;
    const std::string answer = text == saysNothing ? "" : text + "\n";
    return ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL) >= 0;
  }

  const Answers answers_;
  const Orb::Descriptor listener_;
  std::mutex mutex_;
  std::vector<nlohmann::json> requests_;
  std::thread thread_;
};
