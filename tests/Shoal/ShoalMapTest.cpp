// Shared tables as their users see them: one writer and readers on one event loop.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "Orb/EventLoop.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/internal/TableFile.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"
#include "tests/Shoal/Table.h"

namespace {

using namespace std::string_literals;
using Shoal::MountStatus;
using Tables::Contents;
using Tables::path;
using Tables::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Testing::waitFor;

class Shared : public testing::Test {
 protected:
  // A writer and a reader that has caught up with it.
  void connect() {
    writer.write(100);
    reader.read();
    reader.catchUp();
    reader.told.clear();
  }

  Testing::StateDirectory state;
  Tables::RecordedDamage damage;
  Table writer;
  Table reader;
};

TEST_F(Shared, BehavesLikeAMapUnderRandomChangesAndGrowthsAndAcrossMounts) {
  std::mt19937 random(7);
  Contents model;
  writer.write(0);
  for (uint32_t step = 0; step < 20000; ++step) {
    const uint64_t key = random() % 600 - 1;
    const bool there = model.count(key) != 0;
    EXPECT_EQ(writer.map.get(key), there ? std::optional(model[key]) : std::nullopt);
    if (random() % 3 == 0) {
      EXPECT_EQ(writer.map.del(key), there);
      model.erase(key);
    } else {
      writer.map.put(key, model[key] = ~step);
    }
  }
  EXPECT_EQ(writer.contents(), model);
  EXPECT_GT(writer.map.generation(), 1u);
  EXPECT_THAT(writer.map.damagedSlots(), IsEmpty());
  writer.map.unmount();
  EXPECT_THAT(writer.contents(), IsEmpty());
  writer.write();
  EXPECT_EQ(writer.contents(), model);
  EXPECT_EQ(writer.map.size(), model.size());
}

TEST_F(Shared, AReaderThatWasLappedIsToldEveryChangedKeyOnceWhateverItThrows) {
  connect();
  reader.reaction = [](uint64_t) { throw std::runtime_error("no"); };
  for (uint32_t round = 0; round < 200; ++round) {
    for (uint64_t key = 0; key < 50; ++key) writer.map.put(key, round);
  }
  writer.map.del(3);
  waitFor([&] { return reader.quiet && reader.told.size() >= 50; });
  EXPECT_EQ(std::set(reader.told.begin(), reader.told.end()).size(), 50u);
  EXPECT_EQ(reader.told.size(), 50u);
  EXPECT_EQ(reader.contents(), writer.contents());
}

TEST_F(Shared, AReaderIsToldOfChangesOutlivesItsWritersAndMissesNothing) {
  connect();
  EXPECT_THROW(reader.map.put(1, 1), std::logic_error);
  writer.map.put(1, 10);
  writer.map.put(2, 20);
  writer.map.del(1);
  waitFor([&] { return reader.told.size() >= 3 && reader.quiet; });
  writer.map.put(4, 40);
  writer.map.unmount();
  waitFor([&] { return reader.map.mountStatus() == MountStatus::detached; });
  EXPECT_EQ(reader.map.get(2), 20u);
  EXPECT_FALSE(reader.quiet);
  writer.write();
  writer.map.put(3, 30);
  waitFor([&] { return reader.quiet; });
  EXPECT_THAT(reader.told, ElementsAre(1, 2, 1, 4, 3));
  EXPECT_EQ(reader.contents(), writer.contents());
  EXPECT_THAT(reader.statuses, ElementsAre("attached", "detached", "attached"));
}

TEST_F(Shared, AReaderFollowsGrowthsAndDeletionsAcrossThem) {
  writer.write(4);
  for (uint64_t key = 0; key < 4; ++key) writer.map.put(key, 1);
  reader.read();
  reader.catchUp();
  reader.told.clear();
  writer.map.del(2);
  const auto old =
      Shoal::TableFile::open(state.file(path), Tables::type, Shoal::TableFile::Access::read);
  writer.write(1000);
  EXPECT_TRUE(old->isSuperseded());
  writer.write(5000);
  writer.map.put(77, 1);
  waitFor([&] { return reader.quiet && reader.map.get(77) == 1u; });
  EXPECT_THAT(reader.told, UnorderedElementsAre(2, 77));
  EXPECT_EQ(reader.contents(), writer.contents());
  EXPECT_EQ(reader.map.generation(), 3u);
}

TEST_F(Shared, DeletedEntriesMakeNoTableLarger) {
  writer.write();
  const uint32_t slots = writer.map.slotCount();
  for (uint64_t key = 0; key < 100; ++key) {
    writer.map.put(key, 1);
    writer.map.del(key);
  }
  EXPECT_EQ(writer.map.slotCount(), slots);
  EXPECT_GT(writer.map.generation(), 1u);
}

TEST_F(Shared, CallbacksMayWriteDeleteGrowAndUnmount) {
  connect();
  Table second;
  second.read();
  second.catchUp();
  reader.reaction = [&](uint64_t key) {
    if (key == 1) {
      writer.map.put(2, 2);
      writer.map.del(1);
      writer.write(9999);
    }
    if (key == 2) reader.map.unmount();
  };
  writer.map.put(1, 1);
  waitFor([&] { return second.quiet && second.map.get(2) == 2u && !reader.map.slotCount(); });
  EXPECT_EQ(reader.map.mountStatus(), MountStatus::unmounted);
  EXPECT_EQ(second.contents(), writer.contents());
}

TEST_F(Shared, AReaderReportsAFileThatIsReplacedUnderIt) {
  connect();
  writer.map.put(1, 10);
  std::filesystem::remove(state.file(path));
  Table other;
  std::filesystem::remove(state.file(path) + ".sock");
  writer.map.unmount();
  other.write();
  other.map.put(5, 50);
  waitFor([&] { return reader.quiet && reader.map.get(5) == 50u; });
  EXPECT_EQ(reader.map.get(1), std::nullopt);
  EXPECT_THAT(reader.told, testing::IsSupersetOf({1, 5}));
}

TEST_F(Shared, AWriterPutsItsFileBackInPlace) {
  connect();
  const std::string file = state.file(path);
  writer.map.put(1, 10);
  std::filesystem::remove(file);
  waitFor([&] { return std::filesystem::exists(file); });
  // The writer of the intruder never ran an event loop.
  Table other;
  other.write(4, "tables/other");
  other.map.put(1, 66);
  other.map.unmount();
  std::filesystem::rename(state.file("tables/other"), file);
  waitFor([&] { return damage.all.size() == 2; });
  writer.map.put(2, 20);
  waitFor([&] { return reader.quiet && reader.map.get(2) == 20u; });
  EXPECT_EQ(reader.contents(), (Contents{{1, 10}, {2, 20}}));
  Table late;
  late.read();
  EXPECT_EQ(late.contents(), reader.contents());
  // Somebody else may have the role by now.
  std::filesystem::remove(file + ".lock");
  std::filesystem::remove(file);
  waitFor([&] { return damage.all.size() == 3; });
  Orb::eventLoop().runPending();
  EXPECT_FALSE(std::filesystem::exists(file));
  const std::string said = file + ": removed or replaced under its writer";
  EXPECT_THAT(damage.all, ElementsAre(said + "; put back", said + "; put back",
                                      said + ", and cannot be put back: " + file +
                                          ".lock was removed or replaced as well"));
}

TEST_F(Shared, AnIterationIsNotTornByGrowth) {
  connect();
  for (uint64_t key = 0; key < 50; ++key) writer.map.put(key, 1);
  waitFor([&] { return reader.quiet && reader.told.size() == 50; });
  Contents seen;
  Shoal::ShoalMap::Entry entry;
  for (uint32_t position = 0; reader.map.next(position, entry);) {
    EXPECT_TRUE(seen.emplace(entry.key, entry.value).second) << entry.key;
    if (seen.size() == 10) writer.write(1000);
    if (seen.size() >= 10) writer.map.put(1000 + entry.key, 2);
  }
  EXPECT_EQ(seen.size(), 50u);
  for (uint64_t key = 0; key < 50; ++key) EXPECT_EQ(seen[key], 1u) << key;
  waitFor([&] { return reader.quiet && reader.contents() == writer.contents(); });
  EXPECT_EQ(reader.map.size(), 91u);
}

TEST_F(Shared, FilesAreReadableByTheirGroupWhateverTheUmask) {
  const mode_t before = ::umask(0777);
  writer.write();
  ::umask(before);
  const std::pair<std::string, unsigned> modes[] = {
      {"tables", 0750}, {path, 0640}, {path + ".lock"s, 0600}, {path + ".sock"s, 0660}};
  for (const auto& [name, mode] : modes) {
    const auto found = std::filesystem::status(state.file(name)).permissions();
    EXPECT_EQ(static_cast<unsigned>(found), mode) << name;
  }
}

TEST_F(Shared, UnsafePathsAndTooManyEntriesAreRefused) {
  for (const char* bad : {"", "/etc/x", "a//b", "a/", "../x", "a/../b", ".", "a/./b", "x.lock",
                          "x.sock/y", "a.next", "a\nb"}) {
    EXPECT_THROW(writer.write(1, bad), std::invalid_argument) << bad;
    EXPECT_THROW(reader.read(bad), std::invalid_argument) << bad;
  }
  EXPECT_THROW(writer.write(1, std::string(300, 'a').c_str()), std::invalid_argument);
  EXPECT_THROW(writer.write(UINT32_MAX), Shoal::MountException);
  EXPECT_EQ(writer.map.mountStatus(), MountStatus::unmounted);
  writer.write(1, "deep/er/..x/and so on");
}

}  // namespace
