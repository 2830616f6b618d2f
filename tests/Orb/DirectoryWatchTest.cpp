// Directories that are watched, there or not.

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

#include "Orb/DirectoryWatch.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"

namespace {

// What comes between the two looks of a watch for a directory that is missing, once.
std::function<void()> meanwhile;

}  // namespace

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) int inotify_add_watch(int fd, const char* path,
                                                                        uint32_t mask) noexcept {
  const long handle = ::syscall(SYS_inotify_add_watch, fd, path, mask);
  const int error = errno;
  if (handle < 0 && meanwhile) std::exchange(meanwhile, {})();
  errno = error;
  return static_cast<int>(handle);
}

namespace {

namespace fs = std::filesystem;
using Testing::waitFor;

class DirectoryWatch : public testing::Test {
 protected:
  static void touch(const fs::path& file) { std::ofstream(file) << "x"; }

  const Testing::StateDirectory made;
  const fs::path directory = made.path();
};

TEST_F(DirectoryWatch, NoticesARelativeDirectoryThatAppears) {
  const fs::path before = fs::current_path();
  fs::current_path(directory);
  for (const char* name : {"one", "two/deep/er", "./three"}) {
    SCOPED_TRACE(name);
    int told = 0;
    const Orb::DirectoryWatch watch(name, [&told] { ++told; });
    fs::create_directories(directory / name);
    waitFor([&] { return told > 0; });
    Testing::settle();
    const int soFar = told;
    touch(directory / name / "file");
    waitFor([&] { return told > soFar; });
  }
  fs::current_path(before);
}

// All of them at once, before anybody looks: no event of the deeper ones is ever seen.
TEST_F(DirectoryWatch, MissesNoDirectoryThatAppearsInsideANewOne) {
  int told = 0;
  const fs::path deep = directory / "a/b/c/d";
  const Orb::DirectoryWatch watch(deep, [&told] { ++told; });
  for (int round = 0; round < 3; ++round) {
    fs::create_directories(deep);
    touch(deep / "early");
    Testing::settle();
    const int soFar = told;
    touch(deep / "late");
    waitFor([&] { return told > soFar; });
    // Gone with everything in it, and back: then it is watched anew.
    fs::remove_all(directory / "a");
    Testing::settle();
  }
}

TEST_F(DirectoryWatch, MissesNoDirectoryThatAppearsWhileItLooks) {
  int told = 0;
  meanwhile = [this] { fs::create_directories(directory / "a/b"); };
  const Orb::DirectoryWatch watch(directory / "a/b", [&told] { ++told; });
  touch(directory / "a/b/file");
  waitFor([&] { return told > 0; });
}

TEST_F(DirectoryWatch, TellsEverybodyWhenEventsWereLost) {
  size_t most = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
  if (most > 100000) GTEST_SKIP() << "so many events are queued here that none are lost";
  fs::create_directories(directory / "busy");
  fs::create_directories(directory / "quiet");
  int busy = 0, quiet = 0;
  const Orb::DirectoryWatch first((directory / "busy").string(), [&busy] { ++busy; });
  const Orb::DirectoryWatch second((directory / "quiet").string(), [&quiet] { ++quiet; });
  const std::string from = directory / "busy/from", to = directory / "busy/to";
  touch(from);
  for (size_t i = 0; i < most / 4 + 10; ++i) {
    ASSERT_EQ(::rename(from.c_str(), to.c_str()), 0);
    ASSERT_EQ(::rename(to.c_str(), from.c_str()), 0);
  }
  touch(directory / "quiet/file");
  waitFor([&] { return quiet > 0; });
  EXPECT_GT(busy, 0);
}

TEST_F(DirectoryWatch, TellsTheOthersWhenOneThrows) {
  int told = 0;
  const auto throwing = [&told] {
    ++told;
    throw std::runtime_error("no");
  };
  const Orb::DirectoryWatch one(directory, throwing), other(directory, throwing);
  fs::create_directory(directory / "new");
  waitFor([&] { return told == 2; });
}

TEST_F(DirectoryWatch, OneThatEndsInTheTellingOfAnotherIsNotTold) {
  int told = 0;
  std::unique_ptr<Orb::DirectoryWatch> watches[2];
  for (auto& each : watches) {
    each = std::make_unique<Orb::DirectoryWatch>(directory, [&] {
      ++told;
      for (auto& one : watches) one.reset();
    });
  }
  touch(directory / "file");
  waitFor([&] { return told > 0; });
  Testing::settle();
  EXPECT_EQ(told, 1);
}

}  // namespace
