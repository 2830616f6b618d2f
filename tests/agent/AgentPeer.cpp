// An agent that kills itself, for FaultSweepTest: AgentPeer DIRECTORY WORK KILL FAIL
//
// WORK 1 carries out the workload after the chip has come up, 0 does not. KILL is the number of the
// event at which the process is killed, FAIL the number of the register write that fails; 0 is
// never. Events are: the opening of the transport, before and after each register write, and each
// entry of the two tables.
// Prints "up", "ack" for each step, "write REGISTER VALUE" for each register write, and in the end
// "field VALUE" for each field.

#include "tests/agent/AgentPeer.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "KoruRegFile/ShadowSms.h"
#include "Orb/EventLoop.h"
#include "Shoal/StatePath.h"
#include "board/chips/BoardKeeper.h"
#include "board/description/SystemFile.h"
#include "board/devices/MemoryWindow.h"

namespace {

unsigned killAt = 0;
unsigned failAt = 0;

void event() {
  static unsigned count = 0;
  if (++count == killAt) ::kill(::getpid(), SIGKILL);
}

// What has been printed is out before the next event.
void print(const std::string& line) {
  if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) std::abort();
}

class RecordingWindow : public Board::MemoryWindow {
 public:
  using MemoryWindow::MemoryWindow;
  void regWrite(const char* regName, uint32_t value) override {
    static unsigned writes = 0;
    event();
    if (++writes == failAt) throw std::runtime_error("the bus is gone");
    MemoryWindow::regWrite(regName, value);
    print(fmt::format("write {} {:#x}\n", regName, value));
    event();
  }
};

template <class Table>
struct TableEvents : Table::Notifiee {
  explicit TableEvents(const Orb::Ptr<Table>& table) : Table::Notifiee(table) {
    this->hasNotificationActiveIs(true);
  }
  void onField(const KoruRegFile::ShadowFieldKey&) override { event(); }
};

void waitUntilUp(const Board::BoardKeeper& agent) {
  while (agent.health("chip0").state != Board::ChipState::up)
    Orb::eventLoop().runFor(std::chrono::seconds(10));
}

void work(Board::BoardKeeper& agent) {
  const auto chip = agent.logicalChip("chip0");
  for (const Peer::Step& step : Peer::workload) {
    std::vector<Board::FieldWrite> writes;
    for (const auto& [number, value] : Peer::valuesOf(step)) {
      const Peer::Field& field = Peer::fields[number];
      writes.push_back({agent.field("chip0", field.reg, field.name), value});
    }
    if (writes.size() > 1) {
      agent.write("chip0", agent.plan("chip0", writes));
    } else {
      const Peer::Field& field = Peer::fields[step.field];
      chip->fieldWrite(field.reg, field.name, step.value);
    }
    print("ack\n");
    Orb::eventLoop().runPending();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const std::string directory = argv[1];
  const bool works = std::atoi(argv[2]) != 0;
  killAt = static_cast<unsigned>(std::atoi(argv[3]));
  failAt = static_cast<unsigned>(std::atoi(argv[4]));
  Shoal::stateDirectoryIs(directory);
  Board::BoardKeeper agent(
      {.stateDirectory = directory,
       .delays = {std::chrono::milliseconds(1), std::chrono::milliseconds(4)},
       .openTransport = [&](KoruRegFile::TransportMethod& transport,
                            const Board::Chip& chip) -> Board::PostingTransport* {
         event();
         transport.implPtrIs(
             std::make_unique<RecordingWindow>(chip.registerMap.c_str(), directory + "/window"));
         return nullptr;
       }});
  agent.boardIs(Board::readFile(directory + "/board.toml"));
  waitUntilUp(agent);
  print("up\n");
  {
    const TableEvents config(agent.logicalChip("chip0")->shadowFieldsConfig());
    const TableEvents status(agent.logicalChip("chip0")->shadowFieldsStatus());
    if (works) work(agent);
  }
  waitUntilUp(agent);
  for (const Peer::Field& field : Peer::fields) {
    print(fmt::format("field {}\n",
                      agent.logicalChip("chip0")->fieldGetLastWritten(field.reg, field.name)));
  }
  return 0;
}
