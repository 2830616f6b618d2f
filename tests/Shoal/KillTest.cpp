// Shared tables between processes that are killed at any moment.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Shoal/Layout.h"
#include "testing/Expect.h"
#include "testing/Sanitizers.h"
#include "testing/StateDirectory.h"
#include "tests/Shoal/PeerProcess.h"

const char* const Peer::peerProgram = SHOAL_PEER;

namespace {

using Peer::Op;
using Peer::Process;
using Tables::bytesOf;
using Tables::Contents;
using Clock = std::chrono::steady_clock;
using Tables::Table;
using Testing::waitFor;

// A reader that has mounted.
struct Reader : Table {
  explicit Reader(const char* path = Tables::path) { read(path); }
};

void apply(Contents& contents, uint32_t number) {
  contents.erase(Peer::keyOf(number));
  if (!Peer::isRemoval(number)) contents[Peer::keyOf(number)] = number;
}

uint64_t headOf(const std::string& bytes) {
  return reinterpret_cast<const Shoal::TableHeader*>(bytes.data())->head.load();
}

// Makes a change instruction by instruction and calls `each` after every one, until it returns
// false. Returns how many there were; -1 when no process may be traced here, and with a sanitizer,
// whose own instructions are too many.
template <class Each>
int stepThrough(Process& process, uint32_t change, Each each) {
  if (Testing::sanitized) return -1;
  if (::ptrace(PTRACE_SEIZE, process.pid(), nullptr, nullptr) != 0) return -1;
  process.send({Op::traced, change});
  const auto stopSignal = [&process] {
    int status = 0;
    const pid_t waited = ::waitpid(process.pid(), &status, 0);
    return waited == process.pid() && WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
  };
  if (stopSignal() != SIGSTOP) throw std::runtime_error("the change does not begin");
  for (int steps = 0; steps < 1000000; ++steps) {
    ::ptrace(PTRACE_SINGLESTEP, process.pid(), nullptr, nullptr);
    const int stopped = stopSignal();
    if (stopped == SIGSTOP || (stopped == SIGTRAP && !each())) return steps;
    if (stopped != SIGTRAP) break;
  }
  throw std::runtime_error("the change does not end");
}

class Killed : public testing::Test {
 protected:
  const Testing::StateDirectory state;
};

// A change that is interrupted after every single instruction.
struct Interrupted {
  const char* name;
  std::vector<uint32_t> before;  // the changes that led there
  uint32_t change;
};

class KilledAtEveryInstruction : public Killed, public testing::WithParamInterface<Interrupted> {
 protected:
  // What would be found if the writer were killed now.
  void check(const std::string& bytes) {
    const std::string copy = state.file("copy");
    Tables::bytesAre(copy, initial);
    Reader reader("copy");
    ASSERT_EQ(reader.mirror, old);
    if (bytes.size() == initial.size()) {
      Tables::inPlace(copy, bytes);
    } else {
      std::filesystem::remove(copy);
      Tables::bytesAre(copy, bytes);
    }
    {
      const Reader fresh("copy");
      ASSERT_TRUE(fresh.mirror == old || fresh.mirror == renewed);
      ASSERT_TRUE(!wasRenewed || fresh.mirror == renewed) << "the change was undone";
      wasRenewed = fresh.mirror == renewed;
      const uint64_t head = headOf(bytes);
      ASSERT_TRUE(head == headOf(initial) || wasRenewed) << "announced before it was published";
      unannounced += wasRenewed && head == headOf(initial);
    }
    Table next;
    next.write(8, "copy");
    reader.catchUp();
    EXPECT_EQ(reader.mirror, wasRenewed ? renewed : old);
    EXPECT_EQ(reader.contents(), reader.mirror);
    EXPECT_EQ(next.map.size(), reader.mirror.size());
    next.map.put(1000, 1);
    EXPECT_EQ(next.map.get(1000), 1u);
    std::filesystem::remove(copy);
  }

  Contents old;
  Contents renewed;
  std::string initial;
  bool wasRenewed = false;
  int unannounced = 0;
};

TEST_P(KilledAtEveryInstruction, LeavesTheOldContentsOrTheNew) {
  ::setenv("LD_BIND_NOW", "1", 1);
  Process writer(state, "writer");
  for (const uint32_t number : GetParam().before) {
    writer.ask({Op::change, number});
    apply(old, number);
  }
  renewed = old;
  apply(renewed, GetParam().change);
  const std::string file = state.file(Tables::path);
  initial = bytesOf(file);
  std::string last = initial;
  const int steps = stepThrough(writer, GetParam().change, [&] {
    std::string bytes = bytesOf(file);
    if (bytes == last) return true;
    check(bytes);
    last = std::move(bytes);
    return !HasFatalFailure();
  });
  if (steps < 0) GTEST_SKIP() << "no process may be stepped through here";
  EXPECT_GT(steps, 50);
  EXPECT_GT(unannounced, 0);
  EXPECT_TRUE(wasRenewed);
}
// Changes 5, 10 and so on remove; 61 numbers apart, they are about the same key.
INSTANTIATE_TEST_SUITE_P(Killed, KilledAtEveryInstruction,
                         testing::Values(Interrupted{"insert", {1, 2, 3}, 4},
                                         Interrupted{"overwrite", {1, 2, 3}, 63},
                                         Interrupted{"remove", {1, 2, 3, 66}, 5},
                                         Interrupted{"insertAgain", {1, 66, 5}, 127},
                                         Interrupted{"grow", {1, 2, 3, 4, 6, 7, 8, 9}, 11}),
                         [](const auto& test) { return test.param.name; });

TEST_F(Killed, AWriterThatHadNoTimeToWakeItsReadersStillTellsThem) {
  Process writer(state, "writer");
  Reader reader;
  reader.catchUp();
  const auto head = [this] { return headOf(bytesOf(state.file(Tables::path))); };
  const uint64_t before = head();
  if (stepThrough(writer, 1, [&] { return head() == before; }) < 0) {
    GTEST_SKIP() << "no process may be stepped through here";
  }
  writer.kill();
  waitFor([&] { return reader.mirror == Contents{{Peer::keyOf(1), 1}}; });
}

TEST_F(Killed, WritersLoseNothingThatTheyAcknowledged) {
  const auto seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  std::mt19937 random(seed);
  Contents model;
  uint32_t made = 0;
  Reader reader;
  Process lazy(state, "lazy");
  for (int round = 0; round < 30; ++round) {
    Process writer(state, "writer");
    // What the previous writer left behind.
    reader.catchUp();
    Contents withOneMore = model;
    apply(withOneMore, made + 1);
    const Contents found = reader.contents();
    ASSERT_TRUE(found == model || found == withOneMore);
    if (found != model) ++made;
    model = found;
    ASSERT_EQ(reader.mirror, model);
    // More changes than the ring holds before the lazy reader looks again.
    if (round % 5 == 4) {
      ASSERT_EQ(lazy.told(), model);
    }
    writer.send({Op::burst, made + 1, 100000});
    uint32_t last = made;
    for (auto left = random() % 3000; left > 0; --left) last = writer.receive().value;
    writer.kill();
    last = writer.lastAcknowledged(last);
    while (made < last) apply(model, ++made);
  }
  EXPECT_GT(made, 4096u);
}

TEST_F(Killed, TheRoleIsTakenOnceAndFreeAtOnce) {
  Process first(state, "writer");
  Table here;
  const std::string refusal = "table tables/one has a writer already: process ";
  EXPECT_EQ(Testing::failure([&] { here.write(); }), refusal + std::to_string(first.pid()));
  first.kill();
  here.write();
  // As it is within one process.
  EXPECT_EQ(Testing::failure([] { Table().write(); }), refusal + std::to_string(::getpid()));
}

TEST_F(Killed, AChildThatAWriterLeavesBehindHoldsUpNobody) {
  Process first(state, "writer");
  Reader reader;
  reader.catchUp();
  const auto child = static_cast<pid_t>(first.ask({Op::fork}).key);
  ASSERT_GT(child, 0);
  first.kill();
  Process second(state, "writer");
  second.ask({Op::change, 1});
  waitFor([&] { return reader.mirror == Contents{{Peer::keyOf(1), 1}}; });
  ::kill(child, SIGKILL);
}

TEST_F(Killed, AReaderThatSleepsIsAlwaysWoken) {
  Table writer;
  writer.write();
  Process reader(state, "echo");
  writer.servePending();
  ASSERT_EQ(writer.map.readerCount(), 1u);
  // The second change of each round comes when the reader has had the first one, and goes to sleep.
  std::mt19937 random(7);
  for (uint32_t number = 2; number <= 40000; number += 2) {
    writer.map.put(1, number - 1);
    const auto pause = std::chrono::nanoseconds(random() % 20000);
    for (const auto end = Clock::now() + pause; Clock::now() < end;) {
    }
    writer.map.put(1, number);
    // The same change may be told twice.
    while (reader.receive().value != number) {
    }
  }
}

TEST_F(Killed, ReadersThatDieOrNeverLookStallNobody) {
  Table writer;
  writer.write();
  Process lazy(state, "lazy");
  Process dies(state, "lazy");
  writer.servePending();
  ASSERT_EQ(writer.map.readerCount(), 2u);
  // A reader that has caught up sleeps armed.
  EXPECT_THAT(dies.told(), testing::IsEmpty());
  dies.kill();
  for (uint32_t number = 1; number <= 100000; ++number) writer.map.put(number % 61, number);
  waitFor([&] { return writer.map.readerCount() == 1; });
  EXPECT_EQ(lazy.told(), writer.contents());
}

}  // namespace
