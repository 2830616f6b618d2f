// long: all of them share a writer, a reader and the raw socket.
// Readers and writers that are up to no good, or that there are too many of: over a raw socket, and
// with whatever else somebody may leave in the place of a table.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Shoal/TableInfo.h"
#include "Shoal/internal/ReaderServer.h"
#include "Shoal/internal/ReaderState.h"
#include "testing/Expect.h"
#include "testing/RecordingTraceSink.h"
#include "testing/Sanitizers.h"
#include "testing/StateDirectory.h"
#include "tests/Shoal/PeerProcess.h"
#include "tests/Shoal/Table.h"

namespace {

using Orb::Descriptor;
using Shoal::MountStatus;
using Shoal::Received;
using Tables::path;
using Tables::Table;
using testing::HasSubstr;
using Testing::waitFor;
using Clock = std::chrono::steady_clock;

Descriptor sealedMemory(int seals = F_SEAL_SHRINK | F_SEAL_GROW, off_t size = 4096) {
  Descriptor file(::memfd_create("reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(::ftruncate(file.get(), size), 0);
  EXPECT_EQ(::fcntl(file.get(), F_ADD_SEALS, seals), 0);
  return file;
}

// So many descriptors may be open while it lives; without an argument, as many as the system lets.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit = RLIM_INFINITY) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit now = {std::min(limit, before_.rlim_max), before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &now);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  // None but those that are open.
  static rlim_t present() {
    const Descriptor lowest(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    return static_cast<rlim_t>(lowest.get());
  }

 private:
  rlimit before_;
};

class Hostile : public testing::Test {
 protected:
  // A connection of a reader that has said nothing yet.
  Descriptor connected() const { return Shoal::connectTo(state.file(path) + ".sock"); }
  Descriptor greeted(int memory) const {
    Descriptor socket = connected();
    EXPECT_TRUE(Shoal::sendWith(socket.get(), Shoal::readerGreeting, memory));
    return socket;
  }
  static bool hasHungUp(const Descriptor& socket) {
    char byte;
    return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
  }
  // One that has been accepted, with its end of the bell.
  Descriptor accepted(int memory, Descriptor& bell) const {
    Descriptor socket = greeted(memory);
    Table::servePending();
    EXPECT_EQ(Shoal::receiveWith(socket.get(), Shoal::writerAnswer, bell), Received::expected);
    return socket;
  }

  Testing::StateDirectory state;
  Tables::RecordedDamage damage;
  Table writer;
  Table reader;
};

TEST_F(Hostile, GreetingsThatAreNoneEndTheConnectionAndNothingElse) {
  writer.write();
  const Descriptor sound = sealedMemory();
  const Descriptor event(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  const Descriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const Descriptor file(::open(state.file("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::ftruncate(file.get(), 4096), 0);
  const std::pair<const char*, Descriptor> handedIn[] = {
      {"KoruRd02", sealedMemory(F_SEAL_SHRINK)},
      {"KoruRd02", sealedMemory(F_SEAL_GROW)},
      {"KoruRd02", sealedMemory(F_SEAL_SEAL)},
      {"KoruRd02", Descriptor(::dup(event.get()))},
      {"KoruRd02", Descriptor(::dup(null.get()))},
      {"KoruRd02", Descriptor(::dup(file.get()))},
      {"KoruRd02", sealedMemory(F_SEAL_SHRINK | F_SEAL_GROW, 4095)},
      {"KoruRd02", sealedMemory(F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE)},
      {"KoruRd01", sealedMemory()},
      {"KoruRd02 ", sealedMemory()},
      {"KoruRd0", sealedMemory()}};
  for (const auto& [text, descriptor] : handedIn) {
    const Descriptor socket = connected();
    ASSERT_TRUE(Shoal::sendWith(socket.get(), text, descriptor.get()));
    Table::servePending();
    EXPECT_TRUE(hasHungUp(socket)) << text << ", number " << &descriptor - &handedIn[0].second;
    EXPECT_EQ(writer.map.readerCount(), 0u);
  }
  const Descriptor bare = connected();
  ASSERT_EQ(::send(bare.get(), "KoruRd02", 8, MSG_NOSIGNAL), 8);
  Table::servePending();
  EXPECT_TRUE(hasHungUp(bare));
  Descriptor bell;
  const Descriptor twice = accepted(sound.get(), bell);
  EXPECT_EQ(writer.map.readerCount(), 1u);
  EXPECT_TRUE(Shoal::sendWith(twice.get(), Shoal::readerGreeting, sound.get()));
  Table::servePending();
  EXPECT_TRUE(hasHungUp(twice));
  EXPECT_EQ(writer.map.readerCount(), 0u);
}

TEST_F(Hostile, WhateverAReaderDoesToItsBellTheWriterNeverWaits) {
  writer.write();
  const Descriptor memory = sealedMemory();
  const Shoal::ReaderMemory mapped = Shoal::ReaderMemory::map(memory);
  Descriptor bell;
  const Descriptor socket = accepted(memory.get(), bell);
  ::fcntl(bell.get(), F_SETFL, 0);
  constexpr uint64_t full = UINT64_MAX - 1;
  EXPECT_LT(::write(bell.get(), &full, sizeof full), 0);
  epoll_event event;
  EXPECT_EQ(::epoll_wait(bell.get(), &event, 1, 0), 0);
  for (uint32_t i = 1; i <= 1000; ++i) {
    mapped.state()->armed = 1;
    writer.map.put(1, i);
    EXPECT_EQ(mapped.state()->armed, 0u);
    if (i % 2) {
      EXPECT_EQ(::epoll_wait(bell.get(), &event, 1, 0), 1);
      EXPECT_EQ(::epoll_wait(bell.get(), &event, 1, 0), 0);
    }
  }
  writer.map.put(1, 0);
  Shoal::Bell::take(bell.get());
  writer.map.put(1, 0);
  EXPECT_EQ(::epoll_wait(bell.get(), &event, 1, 0), 0) << "was not armed";
}

TEST_F(Hostile, SilentConnectionsLockNobodyOutAndAFullHouseLetsInWhoeverComesWhenOneLeaves) {
  const DescriptorLimit many;
  const Testing::RecordedTraces traces("Shoal", 0);
  writer.write();
  std::vector<Descriptor> silent;
  for (int i = 0; i < 300; ++i) silent.push_back(connected());
  reader.read();
  waitFor([&] { return reader.map.mountStatus() == MountStatus::attached; });
  const auto left = std::count_if(silent.begin(), silent.end(),
                                  [](const Descriptor& each) { return !hasHungUp(each); });
  EXPECT_EQ(static_cast<size_t>(left), Shoal::ReaderServer::mostStrangers);
  reader.map.unmount();
  silent.clear();
  std::deque<Descriptor> others;
  const Descriptor memory = sealedMemory();
  for (size_t i = 0; i < Shoal::ReaderServer::mostReaders; ++i) {
    Descriptor bell;
    others.push_back(accepted(memory.get(), bell));
  }
  EXPECT_EQ(writer.map.readerCount(), Shoal::ReaderServer::mostReaders);
  reader.read();
  waitFor([&] { return traces.texts().size() >= 2; });
  EXPECT_EQ(reader.map.mountStatus(), MountStatus::detached);
  others.pop_front();
  waitFor([&] { return reader.map.mountStatus() == MountStatus::attached; });
  EXPECT_THAT(traces.texts(),
              testing::UnorderedElementsAre(
                  HasSubstr("no room for a reader beside 256 others"),
                  HasSubstr("the writer has not accepted this reader: it has hung up")));
}

TEST_F(Hostile, ABurstOfReadersIsServedByABusyWriter) {
  const DescriptorLimit many;
  std::deque<Table> readers(60);
  for (Table& each : readers) each.read();
  writer.write();
  // All of them connect before the writer has a look.
  for (Table& each : readers) {
    each.map.unmount();
    each.read();
  }
  waitFor([&] { return writer.map.readerCount() == readers.size(); });
  writer.map.put(1, 1);
  for (Table& each : readers) waitFor([&] { return each.map.get(1) == 1u && each.quiet; });
}

// What a hostile writer would listen with.
class FalseWriter : public Hostile {
 protected:
  FalseWriter() {
    writer.write();
    writer.map.unmount();
    listener = Shoal::listenAt(state.file(path) + ".sock");
  }
  Descriptor accept() const {
    return Descriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

  Descriptor listener;
};

TEST_F(FalseWriter, AReaderIsInNoHurryWhenItIsRefusedOrDroppedAgainAndAgain) {
  const Descriptor bell(::epoll_create1(EPOLL_CLOEXEC));
  const Descriptor noBell(::eventfd(1, EFD_CLOEXEC));
  const int answers[] = {-1, bell.get(), noBell.get()};
  reader.read();
  for (const int answer : answers) {
    const auto begin = Clock::now();
    for (int connections = 0; connections < 5;) {
      Orb::eventLoop().runFor(std::chrono::milliseconds(1));
      const Descriptor socket = accept();
      if (!socket) continue;
      ++connections;
      if (answer >= 0) Shoal::sendWith(socket.get(), Shoal::writerAnswer, answer);
      Table::servePending();
    }
    // 10, 20, 40 and 80 ms lie between them, at least.
    EXPECT_GT(Clock::now() - begin, std::chrono::milliseconds(100)) << answer;
    reader.map.unmount();
    reader.read();
  }
}

TEST_F(Hostile, AWriterWithoutDescriptorsWaitsForThem) {
  if (Testing::sanitized) GTEST_SKIP() << "the sanitizer needs descriptors to look at objects";
  const Testing::RecordedTraces traces("Shoal", 0);
  writer.write();
  reader.read();
  size_t served = 0;
  {
    const DescriptorLimit none(DescriptorLimit::present());
    for (int i = 0; i < 200; ++i) served += Orb::eventLoop().runPending();
  }
  EXPECT_LT(served, 20u);
  EXPECT_THAT(traces.texts(), testing::ElementsAre(HasSubstr("Too many open files")));
  waitFor([&] { return reader.map.mountStatus() == MountStatus::attached; });
}

TEST_F(Hostile, AReaderWithoutDescriptorsTriesAgain) {
  if (Testing::sanitized) GTEST_SKIP() << "the sanitizer needs descriptors to look at exceptions";
  reader.read();
  Peer::Process other(state, "writer");
  {
    const DescriptorLimit none(DescriptorLimit::present());
    Table::servePending();
  }
  EXPECT_EQ(reader.map.mountStatus(), MountStatus::waiting);
  waitFor([&] { return reader.map.mountStatus() == MountStatus::attached; });
}

TEST_F(Hostile, AHeaderThatIsChangedUnderAMountIsDamageAndMisleadsNobody) {
  for (const size_t field :
       {offsetof(Shoal::TableIdentity, capacity) + 3, offsetof(Shoal::TableIdentity, slotCount),
        offsetof(Shoal::TableIdentity, ringCount) + 1,
        offsetof(Shoal::TableIdentity, generation) + 7, offsetof(Shoal::TableIdentity, uuid)}) {
    SCOPED_TRACE(field);
    const std::string name = "table" + std::to_string(field);
    writer.write(8, name.c_str());
    reader.read(name.c_str());
    reader.catchUp();
    damage.all.clear();
    std::string bytes = Tables::bytesOf(state.file(name));
    bytes[field] = static_cast<char>(bytes[field] ^ 0x10);
    Tables::inPlace(state.file(name), bytes);
    EXPECT_EQ(writer.map.mountStatus(), MountStatus::damaged);
    EXPECT_EQ(reader.map.mountStatus(), MountStatus::damaged);
    writer.map.put(1, 1);
    waitFor([&] { return !damage.all.empty() && reader.map.get(1) == 1u; });
    EXPECT_THAT(damage.all, testing::ElementsAre(name + ": the header was changed"));
    for (uint64_t key = 2; key <= 30; ++key) writer.map.put(key, 1);
    EXPECT_EQ(writer.map.generation(), 3u);
    EXPECT_EQ(writer.map.slotCount(), 64u);
    EXPECT_EQ(writer.map.mountStatus(), MountStatus::attached);
    waitFor([&] { return reader.quiet && reader.contents() == writer.contents(); });
    EXPECT_THAT(damage.all[1], HasSubstr(": the header was changed"));
    writer.map.unmount();
    reader.map.unmount();
  }
}

TEST_F(Hostile, AHeadThatGoesBackAndARingThatLiesLoseNoChange) {
  const std::string file = state.file(path);
  writer.write();
  for (uint64_t key = 1; key <= 3; ++key) writer.map.put(key, 1);
  reader.read();
  reader.catchUp();
  writer.map.unmount();
  waitFor([&] { return reader.map.mountStatus() == MountStatus::detached; });
  reader.told.clear();
  std::string bytes = Tables::bytesOf(file);
  bytes[offsetof(Shoal::TableHeader, head)] = 1;
  Tables::inPlace(file, bytes);
  writer.write();
  waitFor([&] { return reader.quiet; });
  EXPECT_THAT(reader.told, testing::UnorderedElementsAre(1, 2, 3));
  // Entries that name a slot which is none, and one of an earlier change.
  for (const char lie : {'\x7F', '\0'}) {
    reader.told.clear();
    writer.map.put(1, 2);
    bytes = Tables::bytesOf(file);
    const auto change = static_cast<size_t>(bytes[offsetof(Shoal::TableHeader, head)]);
    char* const entry = &bytes[Shoal::tableHeaderSize + change * sizeof(uint64_t)];
    lie ? void(entry[3] = lie) : void(std::fill_n(entry, sizeof(uint64_t), lie));
    Tables::inPlace(file, bytes);
    Table::servePending();
    EXPECT_THAT(reader.told, testing::Contains(1));
    EXPECT_EQ(reader.contents(), writer.contents());
  }
}

TEST_F(Hostile, AnEntryThatNoSearchFindsIsToldAsStrayed) {
  writer.write();
  writer.map.put(1, 1);
  writer.map.unmount();
  const Shoal::TablePaths paths(path);
  EXPECT_FALSE(Shoal::tableInfo(paths)->isDamaged());
  const auto file =
      Shoal::TableFile::open(paths.table, Tables::type, Shoal::TableFile::Access::write);
  const Shoal::TableView& view = file->view();
  const uint32_t stray = view.find(2).index ^ 8;
  view.slot(stray).key = 2;
  view.slot(stray).word = view.word(2, 5, Shoal::SlotState::present, stray);
  const auto info = Shoal::tableInfo(paths);
  EXPECT_THAT(info->strayedSlots, testing::ElementsAre(stray));
  EXPECT_THAT(info->damagedSlots, testing::IsEmpty());
  EXPECT_TRUE(info->isDamaged());
  // A mark of a successor that there is not.
  EXPECT_FALSE(info->isWronglySuperseded);
  file->view().header().superseded = 1;
  EXPECT_TRUE(Shoal::tableInfo(paths)->isWronglySuperseded);
}

// What others may have left, by what it is called below; "" is the state directory.
struct Foreign {
  const char* what;
  std::function<void(const std::string& place)> make;
  const char* place;
  const char* message;
  bool concernsReaders;
};

void chmodTo(const std::string& place, mode_t mode) { ASSERT_EQ(::chmod(place.c_str(), mode), 0); }
void linkAs(const std::string& place) { std::filesystem::create_hard_link(place, place + "2"); }
void moveAndLink(const std::string& place) {
  std::filesystem::rename(place, place + "2");
  std::filesystem::create_symlink(place + "2", place);
}
void makePipe(const std::string& place) {
  std::filesystem::remove(place);
  ASSERT_EQ(::mkfifo(place.c_str(), 0600), 0);
}
void makeDirectory(const std::string& place) {
  std::filesystem::remove(place);
  std::filesystem::create_directory(place);
}
void giveAway(const std::string& place) {
  ASSERT_EQ(::lchown(place.c_str(), 12345, static_cast<gid_t>(-1)), 0);
}

TEST(Foreign, IsRefusedNamedAndLeftAsItIs) {
  const bool isRoot = ::geteuid() == 0;
  const Foreign table[] = {
      {"all may write", [](auto& place) { chmodTo(place, 0777); }, "", "mode is 0777", true},
      {"its group, too", [](auto& place) { chmodTo(place, 0770); }, "", "mode is 0770", true},
      {"sticky", [](auto& place) { chmodTo(place, 01777); }, "/tables", "mode is 1777", true},
      {"a link", moveAndLink, "/tables", "/tables is no directory", true},
      {"two names", linkAs, "/tables/one", "/tables/one has 2 names", true},
      {"two names", linkAs, "/tables/one.lock", "/tables/one.lock has 2 names", false},
      {"a link", moveAndLink, "/tables/one.lock", "cannot open", false},
      {"a pipe", makePipe, "/tables/one.lock", "/tables/one.lock is no file", false},
      {"a pipe", makePipe, "/tables/one", "/tables/one", true},
      {"a link", moveAndLink, "/tables/one", "/tables/one", true},
      {"a directory", makeDirectory, "/tables/one", "/tables/one", true},
      {"another's", giveAway, "", "belongs to user 12345", false},
      {"another's", giveAway, "/tables", "/tables belongs to user 12345", false},
      {"another's", giveAway, "/tables/one", "/tables/one belongs to user 12345", false},
      {"another's", giveAway, "/tables/one.lock", "one.lock belongs to user 12345", false},
  };
  for (const Foreign& each : table) {
    SCOPED_TRACE(std::string(each.what) + " " + each.place);
    if (std::string_view(each.what) == "another's" && !isRoot) continue;
    const Testing::StateDirectory state;
    Table writer, reader;
    writer.write();
    writer.map.put(1, 1);
    writer.map.unmount();
    const std::string place = state.path() + each.place;
    each.make(place);
    struct stat before, after;
    ASSERT_EQ(::lstat(place.c_str(), &before), 0);
    EXPECT_THAT(Testing::failure([&] { writer.write(1000); }), HasSubstr(each.message));
    if (each.concernsReaders) {
      EXPECT_THAT(Testing::failure([&] { reader.read(); }), HasSubstr(each.message));
    } else {
      reader.read();
      EXPECT_EQ(reader.map.get(1), 1u);
    }
    ASSERT_EQ(::lstat(place.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_size, before.st_size);
  }
}

TEST_F(Hostile, ALockFileIsItsOwnersAloneHoweverTheTableIsSpelled) {
  writer.write();
  writer.map.unmount();
  const std::string lock = state.file(path) + ".lock";
  chmodTo(lock, 0644);
  writer.write();
  EXPECT_EQ(std::filesystem::status(lock).permissions(), std::filesystem::perms(0600));
  Shoal::stateDirectoryIs(state.path() + "//.");
  Table second;
  EXPECT_THAT(Testing::failure([&] { second.write(); }), HasSubstr("has a writer already"));
}

}  // namespace
