#pragma once

// A korud of a test's own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Orb/Descriptor.h"
#include "testing/Process.h"
#include "testing/StateDirectory.h"
#include "tests/agent/Client.h"

namespace Korud {

// Where the program is; the test program says so.
extern const char* const korudProgram;

inline constexpr const char* registerMap =
    "number,name,type,writeable,width\n"
    "0,CTRL,cfg,true,32\n"
    "1,WIDE,cfg,true,32\n"
    "2,STATUS,sts,false,32\n";
inline const std::string chip0 = R"([[chip]]
name = "chip0"
register_map = "map.csv"
memory = "window0"
[chip.physical.CTRL]
en = { bits = 0 }
mode = { bits = "7:4" }
[chip.physical.WIDE]
all = { bits = "31:0" }
[chip.logical.ctrl]
en = { to = "CTRL.en" }
mode = { to = "CTRL.mode", value = 3 }
[chip.logical.wide]
all = { to = "WIDE.all" }
)";

inline std::vector<std::string> linesOf(std::istream&& in) {
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Waits for what no event tells of.
template <class Condition>
void until(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("waited in vain");
    std::this_thread::yield();
  }
}

// A state directory with a system file, and the agent on it.
class Agent {
 public:
  explicit Agent(const std::string& board = chip0) {
    write("map.csv", registerMap);
    write("board.toml", board);
  }
  std::string file(const std::string& name) const { return state_.file(name); }
  void write(const std::string& name, const std::string& text) const {
    const std::string next = file(name + ".new");
    std::ofstream(next) << text;
    ::rename(next.c_str(), file(name).c_str());
  }
  Testing::Command command() const {
    std::vector<std::string> variables = environment;
    variables.push_back("NOTIFY_SOCKET=" + file("notify"));
    std::vector<std::string> argv = wrapper;
    argv.insert(argv.end(),
                {korudProgram, "--config", file("board.toml"), "--state-dir", file(directory)});
    argv.insert(argv.end(), options.begin(), options.end());
    return {argv, std::move(variables)};
  }
  // Starts it, and waits until it says that it is ready.
  void start() {
    const Orb::Descriptor notified(::socket(AF_UNIX, SOCK_DGRAM, 0));
    const sockaddr_un address = addressOf(file("notify"));
    ::unlink(address.sun_path);
    ASSERT_EQ(::bind(notified.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    process_ = std::make_unique<Testing::Process>(command());
    pollfd wanted = {notified.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&wanted, 1, 30000), 1) << "korud does not get ready";
    char text[64] = {};
    ASSERT_GT(::recv(notified.get(), text, sizeof text - 1, 0), 0);
    EXPECT_STREQ(text, "READY=1");
  }
  void signal(int number) { process_->signal(number); }
  Testing::Outcome wait() { return process_->wait(); }
  // Ends it by a signal, and returns how it ended.
  Testing::Outcome stop(int number) {
    signal(number);
    return wait();
  }
  Client client() const { return Client(file("korud.sock")); }
  Client startAndConnect() {
    start();
    return client();
  }
  // Waits until that is true of what it says about the chip.
  template <class Condition>
  json waitFor(const std::string& name, Condition condition) const {
    Client listener = client();
    listener.ask(json({{"op", "subscribe"}}));
    json found = client().chip(name);  // (Events may come before an answer.)
    while (!condition(found)) {
      const json event = json::parse(listener.line());
      if (event["event"] == "chip" && event["chip"]["name"] == name) found = event["chip"];
    }
    return found;
  }
  json waitForState(const std::string& name, const std::string& state) const {
    return waitFor(name, [&](const json& found) { return found["state"] == state; });
  }

  std::vector<std::string> environment;  // what it is started with, beside the test's own
  std::vector<std::string> options;
  std::string directory;             // what is its state directory, in that of the test
  std::vector<std::string> wrapper;  // what starts it, if not the test
  // A figure of /proc/PID/status of whoever has the lock.
  long status(const std::string& key) const {
    for (const auto& line : linesOf(std::ifstream("/proc/" + std::to_string(pid()) + "/status"))) {
      if (line.starts_with(key + ":")) return std::stol(line.substr(key.size() + 1));
    }
    return -1;
  }
  // Whether whoever has the lock waits for events, for as long as it takes: in epoll_wait() or a
  // variant without a time limit, with no timer set.
  bool waitsForEver() const {
    const std::string process = "/proc/" + std::to_string(pid());
    int call = 0;
    std::string skipped, timeout;
    std::ifstream(process + "/syscall") >> call >> skipped >> skipped >> skipped >> timeout;
    if (call != SYS_epoll_wait && call != SYS_epoll_pwait) return false;
    if (!timeout.ends_with("ffffffff")) return false;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fdinfo")) {
      for (const std::string& line : linesOf(std::ifstream(entry.path()))) {
        if (line.starts_with("it_value:") && line != "it_value: (0, 0)") return false;
      }
    }
    return true;
  }
  pid_t pid() const {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const Orb::Descriptor file_(::open(file("korud.lock").c_str(), O_RDONLY));
    ::fcntl(file_.get(), F_GETLK, &lock);
    return lock.l_pid;
  }

 private:
  Testing::StateDirectory state_;
  std::unique_ptr<Testing::Process> process_;
};

}  // namespace Korud
