// Damaged, foreign and vanishing tables: reported, never believed.
// long: all ways to damage a table begin with the same one.

#define XXH_INLINE_ALL
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <stdexcept>
#include <system_error>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/EventLoop.h"
#include "Shoal/Layout.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/internal/TableFile.h"
#include "testing/StateDirectory.h"
#include "tests/Shoal/Table.h"

namespace {

using Brio::CorruptionDetectedException;
using Shoal::MountException;
using Shoal::ShoalMap;
using Tables::bytesAre;
using Tables::bytesOf;
using Tables::Contents;
using Tables::inPlace;
using Tables::path;
using Tables::Table;
using Tables::type;

constexpr uint32_t slotCount = 16;  // of a table made for 8 entries
constexpr size_t slotsBegin = Shoal::slotsOffset(Shoal::tableRingCount, slotCount);
// Among these, 5 is deleted.
const Contents stored = {{0, 7}, {1, 10}, {2, UINT32_MAX}, {99, 0}, {UINT64_MAX, 3}};
constexpr size_t usedHeader = sizeof(Shoal::TableHeader);
constexpr uint64_t deletedKey = 5;
constexpr uint64_t neverStored = 1234;

void serve(int turns) {
  while (turns-- > 0) Orb::eventLoop().runPending();
}

// A small table that was written and closed.
class Damage : public testing::Test {
 protected:
  Damage() {
    ShoalMap map({});
    map.mountAsWriter(path, type, 8);
    map.put(deletedKey, 1);
    for (const auto& [key, value] : stored) map.put(key, value);
    map.del(deletedKey);
  }

  Testing::StateDirectory state;
  const std::string file = state.file(path);
  Tables::RecordedDamage reported;
};

template <class Access>
bool isRefused(Access access) {
  try {
    access();
    return false;
  } catch (const CorruptionDetectedException&) {
  } catch (const MountException&) {
  }
  return true;
}

// Asks a table for everything. What is not refused must be what was stored.
bool isAnyRefused(const ShoalMap& map) {
  bool refused = isRefused([&] { EXPECT_EQ(Tables::contentsOf(map), stored); });
  for (const auto& each : stored) {
    refused |= isRefused([&] { EXPECT_EQ(map.get(each.first), each.second); });
  }
  for (const uint64_t key : {deletedKey, neverStored}) {
    refused |= isRefused([&] { EXPECT_EQ(map.get(key), std::nullopt) << key; });
  }
  return refused;
}

// The same for a table that is mounted first.
bool isAnyRefusedWithMount(bool asWriter) {
  ShoalMap map({});
  const bool refused = isRefused([&] {
    if (asWriter) return map.mountAsWriter(path, type, 8);
    map.mountAsReader(path, type);
    // Catches up with whatever the file says.
    serve(3);
  });
  return refused || isAnyRefused(map);
}

// The bytes to damage: the used part of the header, a ring entry, a sequence number, and a slot of
// each kind.
std::set<size_t> targets(const std::string& bytes) {
  std::set<size_t> offsets;
  const auto add = [&offsets](size_t begin, size_t size) {
    for (size_t i = 0; i < size; ++i) offsets.insert(begin + i);
  };
  add(0, usedHeader);
  add(Shoal::tableHeaderSize + 3 * sizeof(uint64_t), sizeof(uint64_t));
  add(Shoal::sequencesOffset(Shoal::tableRingCount), sizeof(Shoal::SlotSequence));
  std::set<Shoal::SlotState> seen;
  for (size_t at = slotsBegin; at < bytes.size(); at += sizeof(Shoal::Slot)) {
    uint64_t word;
    std::memcpy(&word, &bytes[at + offsetof(Shoal::Slot, word)], sizeof word);
    if (seen.insert(Shoal::wordState(word)).second) add(at, sizeof(Shoal::Slot));
  }
  EXPECT_EQ(seen.size(), 3u);
  return offsets;
}

TEST_F(Damage, NoFlippedBitYieldsAValueThatWasNeverStored) {
  const std::string sound = bytesOf(file);
  const std::set<size_t> offsets = targets(sound);
  int refusals = 0;
  ShoalMap mounted({});
  mounted.mountAsReader(path, type);
  for (const bool asWriter : {false, true}) {
    for (const size_t offset : offsets) {
      for (int bit = 0; bit < 8; ++bit) {
        std::string flipped = sound;
        flipped[offset] = static_cast<char>(flipped[offset] ^ 1 << bit);
        inPlace(file, flipped);
        SCOPED_TRACE("byte " + std::to_string(offset) + ", bit " + std::to_string(bit));
        // What a reader does not look at when it mounts is damaged under one that has mounted:
        // taking a mount back takes long.
        const bool atMount = asWriter || offset < sizeof(Shoal::TableIdentity) ||
                             (offset >= offsetof(Shoal::TableHeader, head) && offset < usedHeader);
        const bool refused = atMount ? isAnyRefusedWithMount(asWriter) : isAnyRefused(mounted);
        refusals += refused;
        EXPECT_TRUE(offset >= sizeof(Shoal::TableIdentity) || refused);
        if (HasFailure()) return;
      }
    }
  }
  // The identity twice, and in one of the slots at least key and word.
  EXPECT_GE(refusals, 2 * 8 * static_cast<int>(sizeof(Shoal::TableIdentity) + 2 * 16));
  bytesAre(file, sound);
  EXPECT_FALSE(isAnyRefusedWithMount(true));
}

using Change = std::function<void(std::string& bytes)>;

Change cutAt(size_t size) {
  return [size](std::string& bytes) { bytes.resize(size); };
}

// An identity with changed fields and a sound check.
Change resigned(const std::function<void(Shoal::TableIdentity&)>& change) {
  return [change](std::string& bytes) {
    Shoal::TableIdentity identity;
    std::memcpy(&identity, bytes.data(), sizeof identity);
    change(identity);
    identity.check = XXH3_64bits(&identity, offsetof(Shoal::TableIdentity, check));
    std::memcpy(bytes.data(), &identity, sizeof identity);
  };
}

TEST_F(Damage, ForeignFilesAreRefusedAndLeftAsTheyAre) {
  // How a file is made that is no sound table, and what mounting it ends in.
  const struct {
    const char* name;
    Change change;
    bool isDamage;              // a table of ours, but damaged
    bool readerMounts = false;  // and finds out at the first access
  } table[] = {
      {"empty", cutAt(0), false},
      {"short", cutAt(100), false},
      {"identity only", cutAt(152), true},
      {"header", cutAt(4096), true},
      {"inside the ring", cutAt(5000), true},
      {"no slots", cutAt(slotsBegin), true},
      {"inside the slots", cutAt(slotsBegin + 40), true},
      {"longer", cutAt(Shoal::tableFileSize(Shoal::tableRingCount, slotCount) + 1), true},
      {"text", [](auto& bytes) { bytes = std::string(5000, 'x'); }, false},
      {"other magic", [](auto& bytes) { bytes[7] = 'L'; }, false},
      {"other byte order", [](auto& bytes) { std::reverse(&bytes[8], &bytes[12]); }, false},
      {"other version", resigned([](auto& i) { ++i.version; }), false},
      {"other type", resigned([](auto& i) { i.typeName[0] = 'R'; }), false},
      {"other hash", resigned([](auto& i) { ++i.hashId; }), false},
      {"other slot size", resigned([](auto& i) { i.slotSize = 64; }), false},
      {"impossible counts", resigned([](auto& i) { i.slotCount = 8, i.ringCount += 20; }), true},
      {"uneven counts", resigned([](auto& i) { i.slotCount = 14, i.ringCount += 5; }), true},
      {"zero identity", [](auto& bytes) { std::fill_n(bytes.begin(), 152, '\0'); }, false},
      {"zero slots", [](auto& b) { std::fill(b.begin() + slotsBegin, b.end(), '\0'); }, true, true},
  };
  const std::string sound = bytesOf(file);
  for (const auto& [name, change, isDamage, readerMounts] : table) {
    SCOPED_TRACE(name);
    std::string bytes = sound;
    change(bytes);
    bytesAre(file, bytes);
    Table writer, reader;
    const auto expectRefused = [foundDamaged = isDamage](auto mount) {
      if (foundDamaged) {
        EXPECT_THROW(mount(), CorruptionDetectedException);
      } else {
        EXPECT_THROW(mount(), MountException);
      }
    };
    expectRefused([&reader, mounts = readerMounts] {
      reader.map.mountAsReader(path, type);
      if (mounts) reader.contents();
    });
    expectRefused([&] { writer.write(10000); });
    EXPECT_EQ(writer.map.mountStatus(), Shoal::MountStatus::unmounted);
    EXPECT_TRUE(bytesOf(file) == bytes) << "the file was changed";
    EXPECT_FALSE(std::filesystem::exists(file + ".next"));
  }
}

TEST_F(Damage, AWrongMarkOfASuccessorKeepsNoReaderBusy) {
  Table writer, reader;
  writer.write();
  reader.read();
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary)
      .seekp(offsetof(Shoal::TableHeader, superseded))
      .put(1);
  serve(10);
  EXPECT_TRUE(reader.quiet);
  EXPECT_EQ(Orb::eventLoop().runPending(), 0u);
  writer.map.put(1, 11);
  serve(10);
  EXPECT_EQ(reader.map.get(1), 11u);
  EXPECT_TRUE(reader.quiet);
}

// A mounted table of some pages whose file is cut by whoever has the right to.
class Cut : public Damage, public testing::WithParamInterface<int> {
 protected:
  static constexpr uint32_t entries = 1000;
  void fill() {
    writer.mountAsWriter(path, type, entries);
    for (uint64_t key = 0; key < entries; ++key) writer.put(key, 1);
  }
  // Cut in the middle of a page of slots, before the slots, within the ring, and to nothing.
  void cut() {
    const size_t slots = Shoal::slotsOffset(Shoal::tableRingCount, 2048);
    const size_t sizes[] = {slots + 5000, slots, 8192, 100, 0};
    ASSERT_EQ(::truncate(file.c_str(), static_cast<off_t>(sizes[GetParam()])), 0);
  }
  // How many accesses, one for each key, find the table damaged.
  template <class Access>
  static int refusals(Access access) {
    int count = 0;
    for (uint64_t key = 0; key < entries; ++key) count += isRefused([&] { access(key); });
    return count;
  }
  int putAll(uint32_t value) {
    return refusals([&](uint64_t key) {
      writer.put(key, value);
      EXPECT_EQ(writer.get(key), value);
    });
  }
  ShoalMap writer{{}};
};

TEST_P(Cut, AReaderReportsItAndLives) {
  fill();
  ShoalMap reader({});
  reader.mountAsReader(path, type);
  serve(5);
  cut();
  const auto getAll = [&] {
    return refusals([&](uint64_t key) { EXPECT_EQ(reader.get(key), 1u); });
  };
  EXPECT_GT(getAll(), 0);
  serve(1);
  EXPECT_GT(getAll(), 0);
  EXPECT_THROW(reader.entries(), CorruptionDetectedException);
  EXPECT_FALSE(reader.damagedSlots().empty());
  EXPECT_EQ(reader.mountStatus(), Shoal::MountStatus::damaged);
  // Where the writer can still change something, that is when the reader finds out by itself.
  putAll(1);
  serve(5);
  EXPECT_EQ(reported.all.empty(), GetParam() != 0);
}

TEST_P(Cut, TheWriterThrowsAndLives) {
  fill();
  cut();
  EXPECT_GT(putAll(2), 0);
  EXPECT_THROW(writer.mountAsWriter(path, type, 100 * entries), CorruptionDetectedException);
  EXPECT_EQ(writer.mountStatus(), Shoal::MountStatus::damaged);
}
INSTANTIATE_TEST_SUITE_P(Damage, Cut, testing::Range(0, 5));

// The growth of a table has to fail for want of room.
template <class Growth>
void expectNoRoom(Growth growth) {
  EXPECT_THAT(growth, testing::Throws<std::system_error>(testing::Property(
                          &std::system_error::code, std::errc::no_space_on_device)));
}

void fillTheFileSystem(const Testing::StateDirectory& state) {
  ShoalMap map({});
  expectNoRoom([&] { map.mountAsWriter(path, type, 10000); });
  EXPECT_EQ(map.mountStatus(), Shoal::MountStatus::unmounted);
  EXPECT_FALSE(std::filesystem::exists(state.file(path)));
  map.mountAsWriter(path, type, 2048);
  for (uint64_t key = 0; key < 2048; ++key) map.put(key, 1);
  const auto isWhole = [&] { return map.size() == 2048 && map.entries().size() == 2048; };
  expectNoRoom([&] { map.put(5000, 1); });
  expectNoRoom([&] { map.mountAsWriter(path, type, 10000); });
  EXPECT_TRUE(isWhole());
  EXPECT_EQ(map.get(5000), std::nullopt);
  map.put(7, 2);
  map.unmount();
  expectNoRoom([&] { map.mountAsWriter(path, type, 10000); });
  EXPECT_FALSE(std::filesystem::exists(state.file(path) + ".next"));
  map.mountAsWriter(path, type, 2048);
  EXPECT_TRUE(isWhole());
  EXPECT_EQ(map.get(7), 2u);
}

TEST(FullFileSystem, IsReportedAndLeavesTheOldTable) {
  const Testing::StateDirectory state;
  // In a process that has a small file system of its own.
  constexpr int notPermitted = 77;
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", state.path().c_str(), "tmpfs", 0, "size=256k,mode=0700") != 0) {
      ::_exit(notPermitted);
    }
    fillTheFileSystem(state);
    std::fflush(nullptr);
    ::_exit(HasFailure() ? 1 : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == notPermitted) {
    GTEST_SKIP() << "no mount namespace of one's own is permitted here";
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
