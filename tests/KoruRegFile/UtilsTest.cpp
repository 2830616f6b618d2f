#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "KoruRegFile/Utils.h"
#include "testing/TempFile.h"

// Stands before the C library's flock, so that a test can wait for a call of another thread instead
// of guessing when it has been made.
namespace {

class FlockCalls {
 public:
  void add() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  int count() {
    const std::lock_guard lock(mutex_);
    return count_;
  }
  void waitFor(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

FlockCalls flockCalls;

}  // namespace

extern "C" __attribute__((visibility("default"))) int flock(int fd, int operation) noexcept {
  flockCalls.add();
  return static_cast<int>(::syscall(SYS_flock, fd, operation));
}

namespace {

using namespace KoruRegFile::Utils;
using ::testing::ElementsAre;
using ::testing::TestWithParam;
using ::testing::Values;

// --- Lines ---------------------------------------------------------------------------------------

TEST(Getline, LeavesOutTheLineEndingAndNoMore) {
  std::istringstream in("x\r\ny\nz\r\r\n\n\r\nlast\r");
  std::string buffer;
  std::string_view line;
  std::vector<std::string> lines;
  while (getline_lea(in, buffer, line)) lines.emplace_back(line);
  EXPECT_THAT(lines, ElementsAre("x", "y", "z\r", "", "", "last"));
  EXPECT_EQ(line.data(), nullptr);
  EXPECT_TRUE(line.empty());
}

// --- Fields --------------------------------------------------------------------------------------

struct TokenizeCase {
  std::string_view text;
  std::vector<std::string_view> fields;
};

class Tokenize : public TestWithParam<TokenizeCase> {};

TEST_P(Tokenize, YieldsTheFieldsAndThenLeavesTheTokenAlone) {
  const auto& [text, expected] = GetParam();
  uint32_t pos = 0;
  std::string_view token = "untouched";
  std::vector<std::string_view> fields;
  while (tokenize(text, pos, token, ',')) fields.push_back(token);
  EXPECT_EQ(fields, expected);
  EXPECT_EQ(token, fields.empty() ? "untouched" : fields.back());
}

INSTANTIATE_TEST_SUITE_P(Texts, Tokenize,
                         Values(TokenizeCase{"a,,b", {"a", "", "b"}},
                                TokenizeCase{"a,b,", {"a", "b"}}, TokenizeCase{"", {}},
                                TokenizeCase{",", {""}}, TokenizeCase{",,", {"", ""}},
                                TokenizeCase{"one", {"one"}}));

// --- System calls --------------------------------------------------------------------------------

struct RetryCase {
  std::vector<int> errors;  // of the calls in turn; 0 stands for success with result 7
  bool onEagain;
  bool onEintr;
  int result;
  size_t calls;
};

class AutoRetry : public TestWithParam<RetryCase> {};

TEST_P(AutoRetry, RepeatsOnlyWhatItWasAskedTo) {
  const RetryCase& c = GetParam();
  size_t calls = 0;
  const auto call = [&] {
    errno = c.errors.at(calls++);
    return errno == 0 ? 7 : -3;
  };
  EXPECT_EQ(syscallAutoRetry(call, c.onEagain, c.onEintr), c.result);
  EXPECT_EQ(calls, c.calls);
  EXPECT_EQ(errno, c.errors[calls - 1]);
}

INSTANTIATE_TEST_SUITE_P(Errors, AutoRetry,
                         Values(RetryCase{{0}, false, false, 7, 1},
                                RetryCase{{EINTR, 0}, false, false, -3, 1},
                                RetryCase{{EAGAIN, 0}, false, false, -3, 1},
                                RetryCase{{EINTR, 0}, true, false, -3, 1},
                                RetryCase{{EAGAIN, 0}, false, true, -3, 1},
                                RetryCase{{EINTR, EINTR, EAGAIN, EINTR, 0}, true, true, 7, 5},
                                RetryCase{{EINTR, EAGAIN, EIO, 0}, true, true, -3, 3}));

TEST(AutoRetry, RefusesAnEmptyFunction) {
  EXPECT_THROW(syscallAutoRetry(nullptr, true, true), std::bad_function_call);
}

TEST(ErrnoMsg, GivesTextAndNumber) {
  errno = ENOENT;
  EXPECT_EQ(errnoMsg(), "No such file or directory (2)");
  errno = 9999;
  EXPECT_EQ(errnoMsg(), "Unknown error 9999 (9999)");
}

// --- Numbers -------------------------------------------------------------------------------------

struct NumberCase {
  const char* text;
  bool ok;
  uint32_t value;
};

class Strtouint32 : public TestWithParam<NumberCase> {};

TEST_P(Strtouint32, AcceptsWhatFits) {
  const auto& [text, expectedOk, value] = GetParam();
  bool ok = !expectedOk;
  errno = EIO;
  EXPECT_EQ(strtouint32_checked(text, ok), value);
  EXPECT_EQ(ok, expectedOk);
  EXPECT_NE(errno, EIO) << "an earlier error must not show";
}

// A negative number is its complement in 64 bits, of which only the smallest few fit again.
INSTANTIATE_TEST_SUITE_P(
    Texts, Strtouint32,
    Values(NumberCase{"42", true, 42}, NumberCase{"0", true, 0}, NumberCase{"007", true, 7},
           NumberCase{" \t7", true, 7}, NumberCase{"+5", true, 5}, NumberCase{"-0", true, 0},
           NumberCase{"4294967295", true, 4294967295u}, NumberCase{"4294967296", false, 0},
           NumberCase{"18446744073709551615", false, 0},
           NumberCase{"18446744073709551616", false, 0},
           NumberCase{"18446744073709551617", false, 0}, NumberCase{"-1", false, 0},
           NumberCase{"-18446744073709551615", true, 1}, NumberCase{"", false, 0},
           NumberCase{" ", false, 0}, NumberCase{"+", false, 0}, NumberCase{"7 ", false, 0},
           NumberCase{"12x", false, 0}, NumberCase{"0x10", false, 0}));

// --- Descriptors ---------------------------------------------------------------------------------

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

int openNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(UnixFdRes, ClosesOnceWhereverTheDescriptorWent) {
  const int first = openNull();
  const int second = openNull();
  {
    UnixFdRes a(first);
    UnixFdRes b(second);
    a = std::move(b);
    EXPECT_FALSE(isOpen(first));
    EXPECT_EQ(a.fd(), second);
    EXPECT_EQ(b.fd(), -1);
    UnixFdRes c(std::move(a));
    EXPECT_EQ(a.fd(), -1);
    EXPECT_EQ(c.fd(), second);
    UnixFdRes& same = c;
    c = std::move(same);
    EXPECT_TRUE(isOpen(second));
  }
  EXPECT_FALSE(isOpen(second));
}

TEST(UnixFdRes, TellsWhatCloseReturned) {
  UnixFdRes open(openNull());
  EXPECT_EQ(open._destruct(), 0);
  EXPECT_EQ(open.fd(), -1);
  EXPECT_EQ(open._destruct(), -1);
  UnixFdRes none(-7);
  EXPECT_EQ(none._destruct(), -7);
  UnixFdRes stale(::dup(2));
  ::close(stale.fd());
  errno = 0;
  EXPECT_EQ(stale._destruct(), -1);
  EXPECT_EQ(errno, EBADF);
}

// --- File locks ----------------------------------------------------------------------------------

class UnixFlock : public ::testing::Test {
 protected:
  static bool tryLock(int fd, int mode) { return ::syscall(SYS_flock, fd, mode | LOCK_NB) == 0; }

  const Testing::TempFile file_;
  // Two open descriptions of one file: locks of one stand in the way of the other.
  UnixFdRes mine_{::open(file_.path(), O_RDWR | O_CLOEXEC)};
  UnixFdRes other_{::open(file_.path(), O_RDWR | O_CLOEXEC)};
};

struct RefusalCase {
  bool haveFile;
  int mode;
  const char* message;
};

class UnixFlockRefusal : public UnixFlock, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(UnixFlockRefusal, NamesTheReasonAndHoldsNothing) {
  const auto& [haveFile, mode, message] = GetParam();
  try {
    const UnixFlockRes lock(haveFile ? mine_.fd() : -1, mode);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), message);
  }
  EXPECT_TRUE(tryLock(other_.fd(), LOCK_EX));
}

INSTANTIATE_TEST_SUITE_P(
    Modes, UnixFlockRefusal,
    Values(RefusalCase{false, LOCK_EX, "Invalid fd"}, RefusalCase{false, 0, "Invalid fd"},
           RefusalCase{true, 0, "Unsupported lock mode"},
           RefusalCase{true, LOCK_NB, "Unsupported lock mode"},
           RefusalCase{true, LOCK_UN, "Unsupported lock mode"},
           RefusalCase{true, LOCK_SH | LOCK_UN, "Cannot unlock flock on constructor"},
           RefusalCase{true, LOCK_EX | LOCK_UN | LOCK_NB, "Cannot unlock flock on constructor"},
           RefusalCase{true, LOCK_EX | LOCK_SH, "flock error: Invalid argument"}));

TEST_F(UnixFlock, HoldsTheLockForItsLifeAndKeepsTheDescriptor) {
  {
    const UnixFlockRes lock(mine_.fd(), LOCK_EX);
    EXPECT_FALSE(tryLock(other_.fd(), LOCK_SH));
  }
  EXPECT_TRUE(isOpen(mine_.fd()));
  EXPECT_TRUE(tryLock(other_.fd(), LOCK_EX));
}

TEST_F(UnixFlock, SharesASharedLock) {
  const UnixFlockRes lock(mine_.fd(), LOCK_SH);
  EXPECT_FALSE(tryLock(other_.fd(), LOCK_EX));
  EXPECT_TRUE(tryLock(other_.fd(), LOCK_SH));
}

TEST_F(UnixFlock, WaitsForALockThatSomebodyElseHolds) {
  for (const int mode : {LOCK_EX, LOCK_SH, LOCK_EX | LOCK_NB}) {
    ASSERT_TRUE(tryLock(other_.fd(), LOCK_EX));
    const int before = flockCalls.count();
    std::atomic<bool> released = false;
    std::thread waiter([&] {
      const UnixFlockRes lock(mine_.fd(), mode);
      EXPECT_TRUE(released) << "mode " << mode;
    });
    // A non-blocking request has to come back again and again, a blocking one just once.
    flockCalls.waitFor(before + ((mode & LOCK_NB) != 0 ? 4 : 1));
    released = true;
    ::syscall(SYS_flock, other_.fd(), LOCK_UN);
    waiter.join();
  }
}

}  // namespace
