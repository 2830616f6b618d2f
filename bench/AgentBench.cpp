// What the agent costs: a field written from the shell, beside a program that does nothing; a field
// written over the socket, beside a server that sends lines back; and what a large board adds to
// that, in work and in waiting for others.

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Orb/Descriptor.h"
#include "bench/Ratio.h"
#include "testing/Process.h"
#include "testing/StateDirectory.h"

namespace {

constexpr size_t inFlight = 64;
constexpr size_t fieldsOfARegister = 4;

void writeBoard(const Testing::StateDirectory& state, size_t chips, size_t fields) {
  const size_t registers = fields / fieldsOfARegister;
  std::ofstream map(state.file("map.csv"));
  map << "number,name,type,writeable,width\n";
  for (size_t i = 0; i < registers; ++i) map << fmt::format("{},R{},cfg,true,32\n", i, i);
  std::ofstream board(state.file("board.toml"));
  for (size_t chip = 0; chip < chips; ++chip) {
    board << fmt::format("[[chip]]\nname = \"chip{}\"\nregister_map = \"map.csv\"\nmemory = true\n",
                         chip);
    for (const char* side : {"physical", "logical"}) {
      const bool isLogical = *side == 'l';
      for (size_t reg = 0; reg < registers; ++reg) {
        board << fmt::format("[chip.{}.{}{}]\n", side, isLogical ? "r" : "R", reg);
        for (size_t i = 0; i < fieldsOfARegister; ++i) {
          board << (isLogical ? fmt::format("f{} = {{ to = \"R{}.f{}\" }}\n", i, reg, i)
                              : fmt::format("f{} = {{ bits = \"{}:{}\" }}\n", i, 8 * i + 7, 8 * i));
        }
      }
    }
  }
}

// A client that waits for lines, whatever they are.
class Client {
 public:
  explicit Client(Orb::Descriptor socket) : socket_(std::move(socket)) {}
  explicit Client(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot connect to " + path);
  }
  void send(const std::string& text) const {
    if (::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0)
      throw std::runtime_error("the server hung up");
  }
  // Reads so many lines, and returns the last bytes of them.
  std::string lines(size_t count) const {
    std::string last;
    while (count > 0) {
      char piece[1 << 16];
      const ssize_t size = ::recv(socket_.get(), piece, sizeof piece, 0);
      if (size <= 0) throw std::runtime_error("the server hung up");
      count -= static_cast<size_t>(std::count(piece, piece + size, '\n'));
      last.assign(piece, static_cast<size_t>(size));
    }
    return last;
  }
  int fd() const { return socket_.get(); }
  // Whoever listens at the other end.
  pid_t server() const {
    ucred peer = {};
    socklen_t size = sizeof peer;
    ::getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer.pid;
  }

 private:
  Orb::Descriptor socket_;
};

// The seconds that a process has worked.
double workOf(pid_t process) {
  clockid_t clock = 0;
  timespec worked = {};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &worked) != 0) {
    throw std::runtime_error("the server has gone");
  }
  return static_cast<double>(worked.tv_sec) + 1e-9 * static_cast<double>(worked.tv_nsec);
}

class Agent {
 public:
  Agent(size_t chips, size_t fields, const std::string& history = "10000") {
    writeBoard(state_, chips, fields);
    korud_ = std::make_unique<Testing::Process>(
        Testing::Command{{KORUD_PROGRAM, "--config", state_.file("board.toml"), "--state-dir",
                          state_.path(), "--history", history}});
    // (It can be reached a moment after its socket is there, and answers when it is up.)
    while (true) {
      try {
        const Client client(socket());
        client.send("{}\n");
        client.lines(1);
        pid_ = client.server();
        return;
      } catch (const std::runtime_error&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }
  ~Agent() {
    korud_->signal(SIGTERM);
    korud_->wait();
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  std::string socket() const { return state_.file("korud.sock"); }
  double work() const { return workOf(pid_); }

 private:
  const Testing::StateDirectory state_;
  std::unique_ptr<Testing::Process> korud_;
  pid_t pid_ = -1;
};

// Sends back what comes, a line at a time.
class Echo {
 public:
  Echo() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no sockets");
    Orb::Descriptor server(ends[0]);
    client_ = std::make_unique<Client>(Orb::Descriptor(ends[1]));
    process_ = ::fork();
    if (process_ != 0) return;
    client_.reset();
    serve(server.get());
  }
  ~Echo() {
    client_.reset();
    ::waitpid(process_, nullptr, 0);
  }
  Echo(const Echo&) = delete;
  Echo& operator=(const Echo&) = delete;

  const Client& client() const { return *client_; }
  double work() const { return workOf(process_); }

 private:
  [[noreturn]] static void serve(int socket) {
    char piece[1 << 16];
    while (true) {
      pollfd wanted = {socket, POLLIN, 0};
      ::poll(&wanted, 1, -1);
      const ssize_t size = ::recv(socket, piece, sizeof piece, 0);
      if (size <= 0) ::_exit(0);
      for (const char *at = piece, *end = piece + size; at != end;) {
        const char* const next = std::find(at, end - 1, '\n') + 1;
        ::send(socket, at, static_cast<size_t>(next - at), MSG_NOSIGNAL);
        at = next;
      }
    }
  }

  std::unique_ptr<Client> client_;
  pid_t process_ = -1;
};

std::string fieldWrite(size_t value) {
  return fmt::format(
      R"({{"id":{},"op":"field.write","chip":"chip0","register":"r2","field":"f1","value":{}}})"
      "\n",
      value, value & 0xFF);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// What the server works for one of many requests that are always so many in flight.
template <class Server>
double workOfARound(const Server& server, const Client& client) {
  std::string requests;
  for (size_t i = 0; i < inFlight; ++i) requests += fieldWrite(i);
  constexpr size_t batches = 100;
  const double before = server.work();
  for (size_t i = 0; i < batches; ++i) {
    client.send(requests);
    client.lines(inFlight);
  }
  return (server.work() - before) / (batches * inFlight);
}

template <class Server>
double workPerWrite(const Server& server, const Client& client) {
  std::vector<double> rounds;
  for (int round = 0; round < 9; ++round) rounds.push_back(workOfARound(server, client));
  return median(rounds);
}

double workPerWrite(size_t chips, size_t fields) {
  const Agent agent(chips, fields);
  return workPerWrite(agent, Client(agent.socket()));
}

// What a history adds, in turns with an agent that keeps none.
double costOfHistory() {
  const Agent with(1, 1000);
  const Agent without(1, 1000, "0");
  const Client client(with.socket());
  const Client other(without.socket());
  std::vector<double> ratios;
  for (int round = 0; round < 25; ++round) {
    ratios.push_back(workOfARound(with, client) / workOfARound(without, other));
  }
  return median(ratios);
}

// The most that the agent works between a request and its answer, in milliseconds, while another
// client has asked for all that it has.
double longestHoldUp(const Agent& agent, const std::string& request) {
  const Client busy(agent.socket());
  const Client other(agent.socket());
  bool isDone = false;
  busy.send(request);
  double longest = 0;
  pollfd wanted = {busy.fd(), POLLIN, 0};
  while (!isDone) {
    const double before = agent.work();
    other.send(fieldWrite(1));
    other.lines(1);
    longest = std::max(longest, agent.work() - before);
    while (!isDone && ::poll(&wanted, 1, 0) > 0) {
      char piece[1 << 16];
      const ssize_t size = ::recv(busy.fd(), piece, sizeof piece, MSG_DONTWAIT);
      isDone = size <= 0 || piece[size - 1] == '\n';
    }
  }
  return longest * 1e3;
}

void addShell(Bench::Figures& figures) {
  const Agent agent(1, fieldsOfARegister * 4);
  size_t value = 0;
  const auto write = [&] {
    for (int i = 0; i < 20; ++i) {
      const auto outcome =
          Testing::run({{KORUREG_PROGRAM, "field", "write", "chip0", "r2", "f1",
                         std::to_string(++value & 0xFF), "--socket", agent.socket()}});
      if (outcome.exitCode != 0) throw std::runtime_error("korureg failed");
    }
  };
  const auto nothing = [] {
    for (int i = 0; i < 20; ++i) Testing::run({{"/bin/true"}});
  };
  figures.add("korureg field write / /bin/true", Bench::medianRatio(write, nothing), 15);
}

void addSocket(Bench::Figures& figures) {
  const Echo echo;
  const double few = workPerWrite(1, 1000);
  figures.add("field.write, 1 k fields / sending a line back",
              few / workPerWrite(echo, echo.client()), 2);
  figures.add("field.write with a history / without", costOfHistory(), 1.1);
  figures.add("field.write, 100 k fields / 1 k", workPerWrite(1, 100000) / few, 1.5);
  const double oneChip = workPerWrite(1, 12);
  figures.add("field.write, 400 chips / 1", workPerWrite(400, 12) / oneChip, 1.5);
}

void addLists(Bench::Figures& figures) {
  const Agent agent(1, 200000);
  const std::pair<const char*, const char*> requests[] = {
      {"field.list", R"({"op":"field.list","chip":"chip0"})"},
      {"register.list", R"({"op":"register.list","chip":"chip0"})"},
      {"chip.registers", R"({"op":"chip.registers","chip":"chip0"})"},
      {"hw.list", R"({"op":"hw.list","chip":"chip0"})"},
      {"entity.get", R"({"op":"entity.get","type":"KoruRegFile::LogicalChip","name":"chip0"})"},
  };
  for (const auto& [name, request] : requests) {
    // (A machine that has others to serve adds what was done before the answer was seen.)
    double longest = 1e9;
    for (int tries = 0; tries < 3; ++tries) {
      longest = std::min(longest, longestHoldUp(agent, std::string(request) + '\n'));
    }
    figures.add(fmt::format("{}, 200 k fields: ms of work in between", name), longest, 5);
  }
}

int printFigures() {
  Bench::Figures figures("the agent");
  addShell(figures);
  addSocket(figures);
  addLists(figures);
  return figures.exitStatus();
}

}  // namespace

int main() { return printFigures(); }
