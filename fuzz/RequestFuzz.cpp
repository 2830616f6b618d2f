// Lines to the agent's socket, in pieces, from several clients at once: each answer is one line of
// JSON, no client gets more answers than it has asked for, and the agent goes on serving.

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/EventLoop.h"
#include "Orb/Trace.h"
#include "board/agent/Agent.h"
#include "board/description/SystemFile.h"
#include "fuzz/Input.h"
#include "testing/StateDirectory.h"

namespace {

constexpr const char* board = R"([[chip]]
name = "c"
register_map = "map.csv"
memory = true
[chip.physical.CTRL]
EN = { bits = "0" }
MODE = { bits = "7:4", values = { off = 0, on = 1 } }
[chip.logical.ctrl]
en = { to = "CTRL.EN" }
mode = { to = "CTRL.MODE", value = "on" }
[chip.status.STATUS]
READY = { bits = "0" }
)";

class Service {
 public:
  Service() {
    Orb::traceLevelIs("*", -1);
    std::ofstream(state_.file("map.csv"))
        << "number,name,type,writeable,width\n0,CTRL,cfg,true,16\n1,STATUS,sts,false,32\n";
    agent_ = std::make_unique<Board::Agent>(Board::AgentOptions{.stateDirectory = state_.path()});
    agent_->chipsAre(Board::readText(board, state_.file("board.toml")).chips);
    agent_->serve();
  }
  Orb::Descriptor connected() const {
    Orb::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    state_.file("korud.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    const int failed =
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    Fuzz::require(failed == 0, "the agent takes no client");
    return socket;
  }

 private:
  const Testing::StateDirectory state_;
  std::unique_ptr<Board::Agent> agent_;
};

class Client {
 public:
  explicit Client(const Service& service) : socket_(service.connected()) {}

  void send(const std::string& piece) {
    asked_ += static_cast<size_t>(std::count(piece.begin(), piece.end(), '\n'));
    static_cast<void>(::send(socket_.get(), piece.data(), piece.size(), MSG_NOSIGNAL));
  }
  // Whether something came.
  bool receive() {
    char piece[1 << 12];
    const ssize_t size = ::recv(socket_.get(), piece, sizeof piece, 0);
    if (size <= 0) return false;
    got_.append(piece, static_cast<size_t>(size));
    for (size_t end; (end = got_.find('\n')) != std::string::npos; got_.erase(0, end + 1)) {
      look(got_.substr(0, end));
    }
    return true;
  }
  size_t answered() const { return answered_; }

 private:
  void look(const std::string& line) {
    const auto answer = nlohmann::json::parse(line, nullptr, false);
    Fuzz::require(answer.is_object(), "an answer that is no object");
    if (answer.contains("event")) return;
    Fuzz::require(answer.contains("ok"), "an answer without an outcome");
    Fuzz::require(++answered_ <= asked_, "more answers than requests");
  }

  Orb::Descriptor socket_;
  std::string got_;
  size_t asked_ = 0;
  size_t answered_ = 0;
};

void settle(std::vector<Client>& clients) {
  for (int idle = 0; idle < 3; ++idle) {
    Orb::eventLoop().runPending();
    for (Client& client : clients) {
      while (client.receive()) idle = 0;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Service service;
  Fuzz::Input input(data, size);
  {
    std::vector<Client> clients;
    for (uint32_t count = 1 + input.below(3); count > 0; --count) clients.emplace_back(service);
    while (!input.empty()) {
      const uint8_t how = input.byte();
      clients[how % clients.size()].send(input.text(1 + how / 2));
      if (how % 4 == 0) settle(clients);
    }
    settle(clients);
  }
  std::vector<Client> last;
  last.emplace_back(service);
  last[0].send("{\"op\":\"chip.list\"}\n");
  settle(last);
  Fuzz::require(last[0].answered() == 1, "the agent does not answer any more");
  return 0;
}
