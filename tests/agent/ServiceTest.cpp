// What korud tells the manager that started it, and what it makes of a manager that is none.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Orb/Descriptor.h"
#include "testing/Process.h"
#include "tests/agent/Client.h"
#include "tests/agent/Korud.h"

namespace {

using Korud::Agent;

// Listens where a service manager would.
class Manager {
 public:
  explicit Manager(std::string path)
      : path_(std::move(path)), socket_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    const sockaddr_un address = Korud::addressOf(path_);
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot listen at " + path_);
    }
  }
  // The next message that is not left out.
  std::string next(const std::string& leftOut = "WATCHDOG=1") {
    std::string message;
    do {
      pollfd wanted = {socket_.get(), POLLIN, 0};
      if (::poll(&wanted, 1, 30000) != 1) throw std::runtime_error("nothing was said");
      char text[256];
      const ssize_t size = ::recv(socket_.get(), text, sizeof text, 0);
      message.assign(text, static_cast<size_t>(size));
    } while (message == leftOut);
    return message;
  }
  // Leaves no room for a message of anybody.
  void fill() {
    const Orb::Descriptor sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    const sockaddr_un address = Korud::addressOf(path_);
    while (::sendto(sender.get(), "full", 4, 0, reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) > 0) {
    }
  }

 private:
  const std::string path_;
  const Orb::Descriptor socket_;
};

// Started by a manager that listens at `socket`, and in that environment.
Testing::Command startedBy(const std::string& socket, const Agent& agent,
                           const std::vector<std::string>& environment = {}) {
  Testing::Command command = agent.command();
  command.environment.back() = "NOTIFY_SOCKET=" + socket;
  command.environment.insert(command.environment.end(), environment.begin(), environment.end());
  return command;
}

// (The socket is there before somebody listens.)
void waitForSocket(const Agent& agent) {
  const sockaddr_un address = Korud::addressOf(agent.file("korud.sock"));
  Korud::until([&] {
    const Orb::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           0;
  });
}

void writesAField(const Agent& agent) {
  Korud::Client client = agent.client();
  EXPECT_EQ(client.ask(Korud::request("field.write", "chip0", "ctrl", "mode", 5))["ok"], true);
}

TEST(Service, TellsTheManagerHowItDoes) {
  const Agent agent;
  Manager manager(agent.file("manager"));
  Testing::Process korud(startedBy(agent.file("manager"), agent, {"WATCHDOG_USEC=20000"}));
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_EQ(manager.next(), "STATUS=1 chips: 1 up");
  EXPECT_EQ(manager.next(""), "WATCHDOG=1");
  EXPECT_EQ(manager.next(""), "WATCHDOG=1");

  agent.write("board.toml", Korud::chip0 + "[[chip]]\nname = \"chip1\"\n");
  EXPECT_EQ(manager.next(), "STATUS=2 chips: 1 up, 1 refused");
  korud.signal(SIGHUP);
  const std::string said = manager.next();
  EXPECT_EQ(said.rfind("RELOADING=1\nMONOTONIC_USEC=", 0), 0u) << said;
  EXPECT_EQ(manager.next(), "READY=1");

  korud.signal(SIGTERM);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  EXPECT_EQ(korud.wait().exitCode, 0);
}

struct Odd {
  const char* name;
  std::string socket;
  std::vector<std::string> environment;
  const char* trace;  // what it says about it
};

class OddManager : public testing::TestWithParam<Odd> {};

TEST_P(OddManager, IsNoReasonNotToServe) {
  const Agent agent;
  Testing::Process korud(startedBy(GetParam().socket, agent, GetParam().environment));
  waitForSocket(agent);
  writesAField(agent);
  korud.signal(SIGTERM);
  const Testing::Outcome outcome = korud.wait();
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_NE(outcome.err.find(GetParam().trace), std::string::npos) << outcome.err;
}

constexpr const char* noAddress = "$NOTIFY_SOCKET is no address";
constexpr const char* noTime = "$WATCHDOG_USEC is no time";
const std::string nobody = "/nonexistent/notify";

INSTANTIATE_TEST_SUITE_P(
    Service, OddManager,
    testing::Values(Odd{"Gone", nobody, {}, ""}, Odd{"NoSocket", "/dev/null", {}, ""},
                    Odd{"Relative", "notify", {}, noAddress}, Odd{"OnlyAMark", "@", {}, noAddress},
                    Odd{"TooLong", "/" + std::string(200, 'x'), {}, noAddress},
                    Odd{"NoTime", nobody, {"WATCHDOG_USEC=soon"}, noTime},
                    Odd{"NegativeTime", nobody, {"WATCHDOG_USEC=-1"}, noTime},
                    Odd{"TimeAndMore", nobody, {"WATCHDOG_USEC=1000 "}, noTime},
                    Odd{"ZeroTime", nobody, {"WATCHDOG_USEC=0"}, noTime},
                    Odd{"HugeTime", nobody, {"WATCHDOG_USEC=18446744073709551615"}, ""},
                    Odd{"TooHugeTime", nobody, {"WATCHDOG_USEC=18446744073709551616"}, noTime},
                    Odd{"ShortestTime", nobody, {"WATCHDOG_USEC=1"}, ""}),
    [](const auto& odd) { return odd.param.name; });

TEST(Service, GivesNoSignsOfLifeThatAnotherProcessIsAskedFor) {
  const Agent agent;
  Manager manager(agent.file("manager"));
  Testing::Process korud(
      startedBy(agent.file("manager"), agent, {"WATCHDOG_USEC=2000", "WATCHDOG_PID=1"}));
  EXPECT_EQ(manager.next(""), "READY=1");
  EXPECT_EQ(manager.next(""), "STATUS=1 chips: 1 up");
  writesAField(agent);
  korud.signal(SIGTERM);
  EXPECT_EQ(manager.next(""), "STOPPING=1");
}

TEST(Service, ServesWhileTheManagerTakesNothingAndTellsItLater) {
  const Agent agent;
  Manager manager(agent.file("manager"));
  manager.fill();
  Testing::Process korud(startedBy(agent.file("manager"), agent, {"WATCHDOG_USEC=2000"}));
  waitForSocket(agent);
  writesAField(agent);
  EXPECT_EQ(manager.next("full"), "READY=1");
  EXPECT_EQ(manager.next(), "STATUS=1 chips: 1 up");
}

// Where the journal takes its lines, they have a priority in front and no time of their own.
TEST(Service, LogsAsTheJournalWantsIt) {
  Agent agent("[");
  const std::string log = agent.file("log");
  const Orb::Descriptor file(::open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  struct stat status;
  ASSERT_EQ(::fstat(file.get(), &status), 0);
  agent.wrapper = {"/bin/sh", "-c", "exec \"$@\" 2>>" + log, "sh"};
  for (const bool isJournal : {true, false}) {
    std::filesystem::resize_file(log, 0);
    const std::string stream =
        std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + (isJournal ? 0 : 1));
    EXPECT_EQ(Testing::run(startedBy(nobody, agent, {"JOURNAL_STREAM=" + stream})).exitCode, 1);
    const auto lines = Korud::linesOf(std::ifstream(log));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("<3>", 0) == 0, isJournal) << lines[0];
    EXPECT_EQ(lines[0].find("<3>korud/0 ") == 0, isJournal) << lines[0];
  }
}

}  // namespace
