// Shared tables beside LMDB (no sync, writable map), a flat hash table in private memory, and the
// bare wake-up of another process by an eventfd. 100 k entries, random keys; one run.

#define XXH_INLINE_ALL
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EventLoop.h"
#include "Shoal/internal/TableFile.h"
#include "bench/Lmdb.h"
#include "bench/Ratio.h"
#include "testing/StateDirectory.h"

namespace {

using namespace Bench;
using Clock = std::chrono::steady_clock;
using KoruRegFile::ShadowFieldKey;

constexpr uint32_t entryCount = 100000;
constexpr const char* type = "Bench::Table";

// Different for each i, and in no order: the key of a whole register at a scattered address.
uint64_t keyOf(size_t i) {
  auto address = static_cast<uint32_t>(i) * 0x9E3779B1;
  address = (address ^ address >> 15) * 0x85EBCA77;
  return uint64_t{address} << 16 | 32;
}

// Keys in random order, as often as wanted.
class Keys {
 public:
  Keys() : positions_(randomPositions(1 << 18, entryCount)) {}
  uint64_t at(size_t i) const { return keyOf(positions_[i & (positions_.size() - 1)]); }

 private:
  std::vector<uint32_t> positions_;
};

std::unique_ptr<Shoal::ShoalMap> filledTable(const char* path) {
  auto map = std::make_unique<Shoal::ShoalMap>(
      Shoal::ShoalMap::Callbacks{[](uint64_t) {}, [] {}, [](bool) {}});
  map->mountAsWriter(path, type, entryCount);
  for (size_t i = 0; i < entryCount; ++i) map->put(keyOf(i), 1);
  return map;
}

struct CountingReactor : KoruRegFile::ShadowFieldsConfig::Notifiee {
  explicit CountingReactor(const Orb::Ptr<KoruRegFile::ShadowFieldsConfig>& table)
      : Notifiee(table) {
    hasNotificationActiveIs(true);
  }
  void onField(const ShadowFieldKey&) override { ++told; }
  uint64_t told = 0;
};

Orb::Ptr<KoruRegFile::ShadowFieldsConfig> mountConfig(
    const Orb::Ptr<OrbPool::EntityManager>& manager, const char* path, OrbPool::MountType mount) {
  const auto group = manager->mountGroup();
  group->collectionDescriptionIs({"field", entryCount, false});
  const auto entity = group->mount("KoruRegFile::ShadowFieldsConfig", path, mount);
  group->close();
  return Orb::dynamic_pointer_cast<KoruRegFile::ShadowFieldsConfig>(entity);
}

// This program again, in another role: the event loop does not survive a fork. Killed at the end of
// the scope.
class Child {
 public:
  explicit Child(const char* role) : pid_(::fork()) {
    if (pid_ != 0) return;
    ::execl("/proc/self/exe", "ShoalBench", role, Shoal::stateDirectory().c_str(), nullptr);
    ::_exit(1);
  }
  ~Child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  const pid_t pid_;
};

// What the processes share to time a wake-up.
struct Times {
  std::atomic<uint64_t> ready;
  std::atomic<uint64_t> heard;  // when, in ns
};

uint64_t now() { return static_cast<uint64_t>(Clock::now().time_since_epoch().count()); }

// Each role has its own.
Times& sharedTimes(const std::string& role) {
  const std::string path = Shoal::stateDirectory() + "/times" + role;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
  if (fd < 0 || ::ftruncate(fd, sizeof(Times)) != 0) std::abort();
  void* memory = ::mmap(nullptr, sizeof(Times), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  return *static_cast<Times*>(memory);
}

// The time from `send` here to the other process hearing of it, which is given time to fall asleep.
template <class Send>
double wakeUp(Times& times, Send send) {
  ::usleep(200);
  times.heard = 0;
  const uint64_t sent = now();
  send();
  while (times.heard == 0) {
  }
  return static_cast<double>(times.heard - sent);
}

double median(std::vector<double> all) {
  std::nth_element(all.begin(), all.begin() + static_cast<ptrdiff_t>(all.size() / 2), all.end());
  return all[all.size() / 2];
}

// The roles of the other process.
using Role = void (*)(Times& times);

// Waits for the bare eventfd, which it has inherited.
constexpr int bareEvent = 100;
void waitBare(Times& times) {
  const int epoll = ::epoll_create1(0);
  epoll_event wanted{EPOLLIN, {}};
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, bareEvent, &wanted);
  times.ready = 1;
  for (epoll_event got; ::epoll_wait(epoll, &got, 1, -1) == 1;) {
    times.heard = now();
    uint64_t count;
    if (::read(bareEvent, &count, sizeof count) < 0) return;
  }
}

void waitForField(Times& times) {
  struct Hearing : KoruRegFile::ShadowFieldsConfig::Notifiee {
    Hearing(const Orb::Ptr<KoruRegFile::ShadowFieldsConfig>& table, Times& t)
        : Notifiee(table), times(t) {
      hasNotificationActiveIs(true);
    }
    void onField(const ShadowFieldKey&) override { times.heard = now(); }
    Times& times;
  };
  const auto manager = OrbPool::entityManagerFactory();
  const auto table = mountConfig(manager, "wake/config", OrbPool::mountReader);
  const Hearing hearing(table, times);
  while (true) {
    Orb::eventLoop().runFor(std::chrono::hours(1));
    if (table->fieldControl()->quiesced()) times.ready = 1;
  }
}

// Never sleeps, and so hardly ever arms itself.
void stayAwake(Times& times) {
  Shoal::ShoalMap map({[](uint64_t) {}, [] {},
                       [&times](bool q) {
                         if (q) times.ready = 1;
                       }});
  map.mountAsReader("awake/table", type);
  while (true) Orb::eventLoop().runPending();
}

struct WakeUps {
  double bare;   // median, in ns
  double added;  // by the table: the median of what each pair differs by
  double idle;   // how often the reader woke in two seconds without a change
};

// How often a process has gone to sleep.
double sleeps(pid_t pid) {
  std::ifstream status(fmt::format("/proc/{}/status", pid));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("voluntary_ctxt_switches:")) return std::stod(line.substr(24));
  }
  std::abort();
}

// Both are measured in pairs: a machine that falls asleep more deeply, or that is slow for a while,
// does so for both of a pair.
WakeUps medianWakeUps() {
  if (::dup2(::eventfd(0, 0), bareEvent) < 0) std::abort();
  Times& bareTimes = sharedTimes("--wait-bare");
  Times& tableTimes = sharedTimes("--wait-for-field");
  bareTimes.ready = 0;
  tableTimes.ready = 0;
  const Child bareChild("--wait-bare");
  const Child tableChild("--wait-for-field");
  const auto manager = OrbPool::entityManagerFactory();
  const auto table = mountConfig(manager, "wake/config", OrbPool::mountWriter);
  while (bareTimes.ready == 0 || tableTimes.ready == 0) Orb::eventLoop().runPending();
  std::vector<double> bare;
  std::vector<double> added;
  for (uint32_t i = 0; i < 1001; ++i) {
    bare.push_back(wakeUp(bareTimes, [] {
      const uint64_t one = 1;
      if (::write(bareEvent, &one, sizeof one) < 0) std::abort();
    }));
    const double ours = wakeUp(tableTimes, [&] { table->fieldIs({ShadowFieldKey(1, 0, 8), i}); });
    added.push_back(ours - bare.back());
  }
  ::usleep(100000);  // asleep by now
  const double before = sleeps(tableChild.pid());
  ::sleep(2);
  const double idle = sleeps(tableChild.pid()) - before;
  return {median(std::move(bare)), median(std::move(added)), idle};
}

// The middle one of three that have processes of their own, since it matters for all of a run on
// which core each of them has come to sleep.
WakeUps typicalWakeUps() {
  std::array<WakeUps, 3> all;
  for (WakeUps& each : all) each = medianWakeUps();
  std::sort(all.begin(), all.end(), [](auto& a, auto& b) { return a.added < b.added; });
  return {all[1].bare, all[1].added, std::max({all[0].idle, all[1].idle, all[2].idle})};
}

// What an awake reader in another process adds to a put, in puts of LMDB. The three are measured
// back to back, since a difference of medians would be one of two moments.
double costOfAwakeReader(Lmdb& lmdb, const Keys& keys) {
  const auto read = filledTable("awake/table");
  const auto unread = filledTable("awake/unread");
  Times& times = sharedTimes("--stay-awake");
  const Child child("--stay-awake");
  while (times.ready == 0) Orb::eventLoop().runPending();
  const auto put = [&](Shoal::ShoalMap& map) {
    return secondsOf([&] {
      for (size_t i = 0; i < 200000; ++i) map.put(keys.at(i), 2);
    });
  };
  const auto lmdbPut = [&] {
    for (size_t i = 0; i < 200000; ++i) lmdb.put(keys.at(i), 2);
  };
  std::vector<double> added;
  for (size_t round = 0; round < 15; ++round) {
    const double withReader = put(*read);
    const double without = put(*unread);
    added.push_back((withReader - without) / secondsOf(lmdbPut));
  }
  return median(std::move(added));
}

double openAndVerifyRatio(Testing::StateDirectory& state) {
  filledTable("verify/table")->unmount();
  const std::string path = state.file("verify/table");
  const auto ours = [&] {
    const auto file = Shoal::TableFile::open(path, type, Shoal::TableFile::Access::read);
    if (!file->view().damagedSlots().empty()) std::abort();
  };
  const auto theirs = [&] {
    const int fd = ::open(path.c_str(), O_RDONLY);
    const auto size = std::filesystem::file_size(path);
    void* begin = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    benchmark::DoNotOptimize(XXH3_64bits(begin, size));
    ::munmap(begin, size);
    ::close(fd);
  };
  return medianRatio(ours, theirs);
}

// So many that a round measures the table and not the refilling of caches after the other's round.
constexpr size_t stepCount = 1000000;

template <class Step>
auto steps(Step step) {
  return [step] {
    for (size_t i = 0; i < stepCount; ++i) step(i);
  };
}

int printFigures() {
  Testing::StateDirectory state;
  const Keys keys;
  Lmdb lmdb(state.file("lmdb"));
  lmdb.fill(entryCount, keyOf);
  Figures figures("shared tables of 100 k entries");
  {
    const auto map = filledTable("get/table");
    boost::unordered_flat_map<uint64_t, uint32_t> flat;
    for (size_t i = 0; i < entryCount; ++i) flat[keyOf(i)] = 1;
    const auto get = steps([&](size_t i) {
      uint32_t value = 0;
      if (!map->get(keys.at(i), value)) std::abort();
      benchmark::DoNotOptimize(value);
    });
    const auto flatGet =
        steps([&](size_t i) { benchmark::DoNotOptimize(flat.find(keys.at(i))->second); });
    const auto lmdbGet = steps([&](size_t i) { benchmark::DoNotOptimize(lmdb.get(keys.at(i))); });
    const auto lmdbSnapshot = [&] {
      lmdb.reading([&](MDB_txn* t) {
        for (size_t i = 0; i < stepCount; ++i) benchmark::DoNotOptimize(lmdb.getIn(t, keys.at(i)));
      });
    };
    const auto put = steps([&](size_t i) { map->put(keys.at(i), static_cast<uint32_t>(i)); });
    const auto lmdbPut = steps([&](size_t i) { lmdb.put(keys.at(i), static_cast<uint32_t>(i)); });
    figures.add("get / LMDB get of the latest value", medianRatio(get, lmdbGet), 0.1);
    figures.add("get / LMDB get, all of one snapshot", medianRatio(get, lmdbSnapshot));
    figures.add("get / flat hash table in private memory", medianRatio(get, flatGet), 2.5);
    figures.add("put by key / LMDB put", medianRatio(put, lmdbPut), 1.0 / 15);
    const auto manager = OrbPool::entityManagerFactory();
    const auto table = mountConfig(manager, "react/config", OrbPool::mountWriter);
    const CountingReactor reactor(table);
    const auto fieldIs = steps([&](size_t i) {
      table->fieldIs({ShadowFieldKey(static_cast<uint32_t>(keys.at(i) >> 16), 0, 32), 3});
    });
    figures.add("fieldIs with a local reactor / LMDB put", medianRatio(fieldIs, lmdbPut), 0.25);
    figures.add("what an awake remote reader adds to a put / LMDB put",
                costOfAwakeReader(lmdb, keys), 0.1);
  }
  figures.add("open and verify / checksum of the same bytes", openAndVerifyRatio(state), 3);
  size_t run = 0;
  const auto mountNew = [&] {
    Shoal::ShoalMap map({[](uint64_t) {}, [] {}, [](bool) {}});
    map.mountAsWriter(fmt::format("new/table{}", ++run), type, entryCount);
  };
  const auto lmdbNew = [&] {
    Lmdb(state.file(fmt::format("lmdb{}", ++run))).fill(entryCount, keyOf);
  };
  figures.add("mount a new table / LMDB filled", medianRatio(mountNew, lmdbNew), 1);
  const auto [bare, added, idle] = typicalWakeUps();
  figures.add("a bare eventfd wake-up, in us", bare / 1000);
  figures.add("what fieldIs to a reactor elsewhere adds to it, in us", added / 1000,
              std::max(bare / 5, 1000.0) / 1000);
  figures.add("wake-ups of an idle reader in two seconds", idle, 0);
  return figures.exitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, Role> roles = {
      {"--wait-bare", waitBare}, {"--wait-for-field", waitForField}, {"--stay-awake", stayAwake}};
  if (argc == 3 && roles.contains(argv[1])) {
    Shoal::stateDirectoryIs(argv[2]);
    roles.at(argv[1])(sharedTimes(argv[1]));
    return 1;
  }
  return printFigures();
}
