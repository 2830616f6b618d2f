// Damaged, foreign and vanishing tables: reported, never believed.
// long: all ways to damage a table begin with the same one.

#define XXH_INLINE_ALL
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/EventLoop.h"
#include "Shoal/Layout.h"
#include "Shoal/ShoalMap.h"
#include "Shoal/TableFile.h"
#include "testing/StateDirectory.h"

namespace {

using Brio::CorruptionDetectedException;
using Shoal::MountException;
using Shoal::ShoalMap;
using Contents = std::map<uint64_t, uint32_t>;

constexpr const char* path = "one";
constexpr const char* type = "Test::Table";
constexpr uint32_t slotCount = 16;  // of a table made for 8 entries
constexpr size_t slotsBegin = Shoal::slotsOffset(Shoal::tableRingCount, slotCount);
// Among these, 5 is deleted.
const Contents stored = {{0, 7}, {1, 10}, {2, UINT32_MAX}, {99, 0}, {UINT64_MAX, 3}};
constexpr size_t usedHeader = sizeof(Shoal::TableHeader);
constexpr uint64_t deletedKey = 5;
constexpr uint64_t neverStored = 1234;

std::string bytesOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void bytesAre(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}

void inPlace(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::in) << bytes;
}

// A small table that was written and closed.
class Damage : public testing::Test {
 protected:
  Damage() {
    ShoalMap::corruptionHandlerIs([this](const std::string& what) { reported.push_back(what); });
    ShoalMap map({});
    map.mountAsWriter(path, type, 8);
    map.put(deletedKey, 1);
    for (const auto& [key, value] : stored) map.put(key, value);
    map.del(deletedKey);
  }
  ~Damage() override { ShoalMap::corruptionHandlerIs({}); }

  Testing::StateDirectory state;
  const std::string file = state.file(path);
  std::vector<std::string> reported;
};

enum class Verdict { sound, refused };

template <class Access>
Verdict verdictOf(Access access) {
  try {
    access();
    return Verdict::sound;
  } catch (const CorruptionDetectedException&) {
  } catch (const MountException&) {
  }
  return Verdict::refused;
}

// Asks a table for everything. What is not refused must be what was stored.
Verdict verdictOn(const ShoalMap& map) {
  bool refused = false;
  const auto tried = [&refused](auto access) { refused |= verdictOf(access) == Verdict::refused; };
  for (const auto& each : stored) tried([&] { EXPECT_EQ(map.get(each.first), each.second); });
  for (const uint64_t key : {deletedKey, neverStored}) {
    tried([&] { EXPECT_EQ(map.get(key), std::nullopt) << key; });
  }
  tried([&] {
    Contents all;
    for (const auto& entry : map.entries()) all[entry.key] = entry.value;
    EXPECT_EQ(all, stored);
  });
  return refused ? Verdict::refused : Verdict::sound;
}

// The same for a table that is mounted first.
Verdict verdictOnMount(bool asWriter) {
  ShoalMap map({});
  const Verdict verdict = verdictOf([&] {
    if (asWriter) return map.mountAsWriter(path, type, 8);
    map.mountAsReader(path, type);
    // Catches up with whatever the file says.
    for (int turn = 0; turn < 3; ++turn) Orb::eventLoop().runPending();
  });
  return verdict == Verdict::refused ? verdict : verdictOn(map);
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
        const Verdict verdict = atMount ? verdictOnMount(asWriter) : verdictOn(mounted);
        refusals += verdict == Verdict::refused;
        EXPECT_TRUE(offset >= sizeof(Shoal::TableIdentity) || verdict == Verdict::refused);
        if (HasFailure()) return;
      }
    }
  }
  // The identity twice, and in one of the slots at least key and word.
  EXPECT_GE(refusals, 2 * 8 * static_cast<int>(sizeof(Shoal::TableIdentity) + 2 * 16));
  bytesAre(file, sound);
  EXPECT_EQ(verdictOnMount(true), Verdict::sound);
}

// The slots on the way to each key in a crowded table, as docs/TableFormat.md has it.
std::map<uint64_t, std::set<uint32_t>> waysTo(const std::map<uint64_t, uint32_t>& slotOf,
                                              uint32_t slots) {
  std::map<uint64_t, std::set<uint32_t>> ways;
  for (const auto& [key, slot] : slotOf) {
    uint64_t spread = key * 0x9E3779B97F4A7C15;
    spread = (spread ^ spread >> 32) * 0x9E3779B97F4A7C15;
    const auto first = static_cast<uint32_t>((spread >> 32) * slots >> 32);
    uint32_t at = first;
    for (uint32_t step = 1; ways[key].insert(at).second && at != slot; ++step) {
      at = (first + step - step % 4) % slots ^ step % 4;
    }
  }
  return ways;
}

TEST_F(Damage, EverySearchThatPassesADamagedSlotIsRefusedAndNoOther) {
  constexpr uint32_t keys = 64;
  ShoalMap map({});
  map.mountAsWriter("crowded", type, keys);
  const uint32_t slots = map.slotCount();
  for (uint64_t key = 1; key <= keys; ++key) map.put(key << 16, 1);
  const std::string crowded = state.file("crowded");
  const std::string sound = bytesOf(crowded);
  std::map<uint64_t, uint32_t> slotOf;
  for (uint32_t slot = 0; slot < slots; ++slot) {
    uint64_t key;
    std::memcpy(&key, &sound[sound.size() - (slots - slot) * sizeof(Shoal::Slot)], sizeof key);
    if (key != 0) slotOf[key] = slot;
  }
  const auto ways = waysTo(slotOf, slots);
  size_t passed = 0;
  for (const auto& [damagedKey, damagedSlot] : slotOf) {
    std::string damaged = sound;
    damaged[damaged.size() - (slots - damagedSlot) * sizeof(Shoal::Slot) + 15] ^= 1;
    inPlace(crowded, damaged);
    for (const auto& way : ways) {
      const bool isOnTheWay = way.second.count(damagedSlot) != 0;
      passed += isOnTheWay && way.first != damagedKey;
      EXPECT_EQ(verdictOf([&] { map.get(way.first); }) == Verdict::refused, isOnTheWay)
          << "slot " << damagedSlot << ", key " << way.first;
    }
  }
  EXPECT_GT(passed, keys / 8);
}

// How a file is made that is no sound table, and what mounting it ends in.
struct Foreign {
  const char* name;
  std::function<void(std::string& bytes)> change;
  bool isDamage;              // a table of ours, but damaged
  bool readerMounts = false;  // and finds out at the first access
};
void PrintTo(const Foreign& foreign, std::ostream* out) { *out << foreign.name; }

class ForeignFile : public Damage, public testing::WithParamInterface<Foreign> {};

// Gives an identity with changed fields a sound check again.
void resign(std::string& bytes, const std::function<void(Shoal::TableIdentity&)>& change) {
  Shoal::TableIdentity identity;
  std::memcpy(&identity, bytes.data(), sizeof identity);
  change(identity);
  identity.check = XXH3_64bits(&identity, offsetof(Shoal::TableIdentity, check));
  std::memcpy(bytes.data(), &identity, sizeof identity);
}

TEST_P(ForeignFile, IsRefusedAndLeftAsItIs) {
  const Foreign& foreign = GetParam();
  std::string bytes = bytesOf(file);
  foreign.change(bytes);
  bytesAre(file, bytes);
  ShoalMap writer({});
  ShoalMap reader({});
  const auto read = [&] {
    reader.mountAsReader(path, type);
    if (foreign.readerMounts) reader.entries();
  };
  const auto write = [&] { writer.mountAsWriter(path, type, 10000); };
  if (foreign.isDamage) {
    EXPECT_THROW(read(), CorruptionDetectedException);
    EXPECT_THROW(write(), CorruptionDetectedException);
  } else {
    EXPECT_THROW(read(), MountException);
    EXPECT_THROW(write(), MountException);
  }
  EXPECT_EQ(writer.mountStatus(), Shoal::MountStatus::unmounted);
  EXPECT_TRUE(bytesOf(file) == bytes) << "the file was changed";
  EXPECT_FALSE(std::filesystem::exists(file + ".next"));
}
Foreign cutAt(const char* name, size_t size, bool isDamage) {
  return {name, [size](std::string& bytes) { bytes.resize(size); }, isDamage};
}
INSTANTIATE_TEST_SUITE_P(
    Damage, ForeignFile,
    testing::Values(
        cutAt("empty", 0, false), cutAt("short", 100, false), cutAt("identityOnly", 152, true),
        cutAt("header", 4096, true), cutAt("insideRing", 5000, true),
        cutAt("noSlots", slotsBegin, true), cutAt("insideSlots", slotsBegin + 40, true),
        cutAt("longer", Shoal::tableFileSize(Shoal::tableRingCount, slotCount) + 1, true),
        Foreign{"text", [](auto& bytes) { bytes = std::string(5000, 'x'); }, false},
        Foreign{"otherMagic", [](auto& bytes) { bytes[7] = 'L'; }, false},
        Foreign{"otherByteOrder", [](auto& b) { std::reverse(&b[8], &b[12]); }, false},
        Foreign{"otherVersion", [](auto& b) { resign(b, [](auto& i) { ++i.version; }); }, false},
        Foreign{"otherType", [](auto& b) { resign(b, [](auto& i) { i.typeName[0] = 'R'; }); },
                false},
        Foreign{"otherHash", [](auto& b) { resign(b, [](auto& i) { ++i.hashId; }); }, false},
        Foreign{"otherSlotSize", [](auto& b) { resign(b, [](auto& i) { i.slotSize = 64; }); },
                false},
        Foreign{"impossibleCounts",
                [](auto& b) { resign(b, [](auto& i) { i.slotCount = 8, i.ringCount += 20; }); },
                true},
        Foreign{"unevenCounts",
                [](auto& b) { resign(b, [](auto& i) { i.slotCount = 14, i.ringCount += 5; }); },
                true},
        Foreign{"zeroIdentity", [](auto& b) { std::fill_n(b.begin(), 152, '\0'); }, false},
        Foreign{"zeroSlots", [](auto& b) { std::fill(b.begin() + slotsBegin, b.end(), '\0'); },
                true, true}),
    [](const auto& test) { return test.param.name; });

TEST_F(Damage, WhatIsNoRegularFileIsRefused) {
  for (const char* kind : {"directory", "link", "pipe"}) {
    std::filesystem::rename(file, file + "0");
    if (*kind == 'd') std::filesystem::create_directory(file);
    if (*kind == 'l') std::filesystem::create_symlink(file + "0", file);
    if (*kind == 'p') {
      ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    }
    ShoalMap map({});
    EXPECT_THROW(map.mountAsReader(path, type), std::runtime_error) << kind;
    EXPECT_THROW(map.mountAsWriter(path, type, 8), std::runtime_error) << kind;
    std::filesystem::remove(file);
    std::filesystem::rename(file + "0", file);
  }
}

TEST_F(Damage, AWrongMarkOfASuccessorKeepsNoReaderBusy) {
  bool quiet = false;
  ShoalMap writer({});
  ShoalMap reader({{}, {}, [&quiet](bool quiesced) { quiet = quiesced; }});
  writer.mountAsWriter(path, type, 8);
  reader.mountAsReader(path, type);
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary)
      .seekp(offsetof(Shoal::TableHeader, superseded))
      .put(1);
  for (int turn = 0; turn < 10; ++turn) Orb::eventLoop().runPending();
  EXPECT_TRUE(quiet);
  EXPECT_EQ(Orb::eventLoop().runPending(), 0u);
  writer.put(1, 11);
  for (int turn = 0; turn < 10; ++turn) Orb::eventLoop().runPending();
  EXPECT_EQ(reader.get(1), 11u);
  EXPECT_TRUE(quiet);
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
  // Returns how often the table turned out to be damaged.
  int putAll(uint32_t value) {
    int failures = 0;
    for (uint64_t key = 0; key < entries; ++key) {
      try {
        writer.put(key, value);
        EXPECT_EQ(writer.get(key), value);
      } catch (const CorruptionDetectedException&) {
        ++failures;
      }
    }
    return failures;
  }
  ShoalMap writer{{}};
};

TEST_P(Cut, AReaderReportsItAndLives) {
  fill();
  ShoalMap reader({});
  reader.mountAsReader(path, type);
  for (int turn = 0; turn < 5; ++turn) Orb::eventLoop().runPending();
  cut();
  int failures = 0;
  for (int turn = 0; turn < 2; ++turn) {
    for (uint64_t key = 0; key < entries; ++key) {
      try {
        EXPECT_EQ(reader.get(key), 1u);
      } catch (const CorruptionDetectedException&) {
        ++failures;
      }
    }
    Orb::eventLoop().runPending();
  }
  EXPECT_GT(failures, 0);
  EXPECT_THROW(reader.entries(), CorruptionDetectedException);
  EXPECT_FALSE(reader.damagedSlots().empty());
  EXPECT_EQ(reader.mountStatus(), Shoal::MountStatus::damaged);
  // Where the writer can still change something, that is when the reader finds out by itself.
  putAll(1);
  for (int turn = 0; turn < 5; ++turn) Orb::eventLoop().runPending();
  EXPECT_EQ(reported.empty(), GetParam() != 0);
}

TEST_P(Cut, TheWriterThrowsAndLives) {
  fill();
  cut();
  EXPECT_GT(putAll(2), 0);
  EXPECT_THROW(writer.mountAsWriter(path, type, 100 * entries), CorruptionDetectedException);
  EXPECT_EQ(writer.mountStatus(), Shoal::MountStatus::damaged);
}
INSTANTIATE_TEST_SUITE_P(Damage, Cut, testing::Range(0, 5));

// Runs the body in a child process that has a small file system of its own. Returns its exit code,
// and notPermitted when it cannot have one.
constexpr int notPermitted = 77;
template <class Body>
int inSmallFileSystem(const std::string& directory, Body body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=256k") != 0) {
      ::_exit(notPermitted);
    }
    body();
    std::fflush(nullptr);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int errorOf(const std::function<void()>& access) {
  try {
    access();
  } catch (const std::system_error& e) {
    return e.code().value();
  }
  return 0;
}

TEST(FullFileSystem, IsReportedAndLeavesTheOldTable) {
  const Testing::StateDirectory state;
  const int result = inSmallFileSystem(state.path(), [&] {
    ShoalMap map({});
    EXPECT_EQ(errorOf([&] { map.mountAsWriter(path, type, 10000); }), ENOSPC);
    EXPECT_EQ(map.mountStatus(), Shoal::MountStatus::unmounted);
    EXPECT_FALSE(std::filesystem::exists(state.file(path)));
    map.mountAsWriter(path, type, 2048);
    for (uint64_t key = 0; key < 2048; ++key) map.put(key, 1);
    const auto isWhole = [&] { return map.size() == 2048 && map.entries().size() == 2048; };
    EXPECT_EQ(errorOf([&] { map.put(5000, 1); }), ENOSPC);
    EXPECT_EQ(errorOf([&] { map.mountAsWriter(path, type, 10000); }), ENOSPC);
    EXPECT_TRUE(isWhole());
    EXPECT_EQ(map.get(5000), std::nullopt);
    map.put(7, 2);
    map.unmount();
    EXPECT_EQ(errorOf([&] { map.mountAsWriter(path, type, 10000); }), ENOSPC);
    EXPECT_FALSE(std::filesystem::exists(state.file(path) + ".next"));
    map.mountAsWriter(path, type, 2048);
    EXPECT_TRUE(isWhole());
    EXPECT_EQ(map.get(7), 2u);
  });
  if (result == notPermitted) GTEST_SKIP() << "no mount namespace of one's own is permitted here";
  EXPECT_EQ(result, 0);
}

}  // namespace
