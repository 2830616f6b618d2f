#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <vector>

#include "KoruRegFile/Utils.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"

namespace {

using namespace KoruRegFile::Utils;

// --- Lines ---------------------------------------------------------------------------------------

TEST(Getline, LeavesOutTheLineEndingAndNoMore) {
  std::istringstream in("x\r\ny\nz\r\r\n\n\r\nlast\r");
  std::string buffer;
  std::string_view line;
  std::vector<std::string> lines;
  while (getline_lea(in, buffer, line)) lines.emplace_back(line);
  EXPECT_THAT(lines, ::testing::ElementsAre("x", "y", "z\r", "", "", "last"));
  EXPECT_EQ(line.data(), nullptr);
  EXPECT_TRUE(line.empty());
}

// --- Fields --------------------------------------------------------------------------------------

TEST(Tokenize, YieldsTheFieldsAndThenLeavesTheTokenAlone) {
  const std::pair<std::string_view, std::vector<std::string_view>> cases[] = {
      {"a,,b", {"a", "", "b"}}, {"a,b,", {"a", "b"}}, {"", {}}, {",", {""}},
      {",,", {"", ""}},         {"one", {"one"}}};
  for (const auto& [text, expected] : cases) {
    uint32_t pos = 0;
    std::string_view token = "untouched";
    std::vector<std::string_view> fields;
    while (tokenize(text, pos, token, ',')) fields.push_back(token);
    EXPECT_EQ(fields, expected);
    EXPECT_EQ(token, fields.empty() ? "untouched" : fields.back());
  }
}

// --- System calls --------------------------------------------------------------------------------

TEST(AutoRetry, RepeatsOnlyWhatItWasAskedTo) {
  const struct {
    std::vector<int> errors;  // of the calls in turn; 0 stands for success with result 7
    bool onEagain, onEintr;
    size_t calls;
  } cases[] = {{{0}, false, false, 1},
               {{EINTR, 0}, false, false, 1},
               {{EAGAIN, 0}, false, false, 1},
               {{EINTR, 0}, true, false, 1},
               {{EAGAIN, 0}, false, true, 1},
               {{EINTR, EINTR, EAGAIN, EINTR, 0}, true, true, 5},
               {{EINTR, EAGAIN, EIO, 0}, true, true, 3}};
  for (const auto& [errors, onEagain, onEintr, expectedCalls] : cases) {
    size_t calls = 0;
    const auto call = [&, &errors = errors] {
      errno = errors.at(calls++);
      return errno == 0 ? 7 : -3;
    };
    const int last = errors[expectedCalls - 1];
    EXPECT_EQ(syscallAutoRetry(call, onEagain, onEintr), last == 0 ? 7 : -3);
    EXPECT_EQ(calls, expectedCalls);
    EXPECT_EQ(errno, last);
  }
  EXPECT_THROW(syscallAutoRetry(nullptr, true, true), std::bad_function_call);
}

// --- Numbers -------------------------------------------------------------------------------------

void expectNumber(const char* text, bool expectedOk, uint32_t value) {
  SCOPED_TRACE(text);
  bool ok = !expectedOk;
  errno = EIO;
  EXPECT_EQ(strtouint32_checked(text, ok), value);
  EXPECT_EQ(ok, expectedOk);
  EXPECT_NE(errno, EIO) << "an earlier error must not show";
}

// A negative number is its complement in 64 bits, of which only the smallest few fit again.
TEST(Strtouint32, AcceptsWhatFits) {
  for (const char* seven : {"7", "007", " \t7", "+7", "-18446744073709551609"}) {
    expectNumber(seven, true, 7);
  }
  expectNumber("0", true, 0);
  expectNumber("-0", true, 0);
  expectNumber("4294967295", true, 4294967295u);
  for (const char* wrong : {"4294967296", "18446744073709551615", "18446744073709551616",
                            "18446744073709551617", "-1", "", " ", "+", "7 ", "12x", "0x10"}) {
    expectNumber(wrong, false, 0);
  }
}

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
  static bool tryLock(int fd, int mode) { return ::flock(fd, mode | LOCK_NB) == 0; }

  const Testing::TempFile file_;
  // Two open descriptions of one file: locks of one stand in the way of the other.
  UnixFdRes mine_{::open(file_.path(), O_RDWR | O_CLOEXEC)};
  UnixFdRes other_{::open(file_.path(), O_RDWR | O_CLOEXEC)};
};

TEST_F(UnixFlock, RefusesWithAReasonAndHoldsNothing) {
  const struct {
    int fd, mode;
    const char* message;
  } cases[] = {{-1, LOCK_EX, "Invalid fd"},
               {-1, 0, "Invalid fd"},
               {mine_.fd(), 0, "Unsupported lock mode"},
               {mine_.fd(), LOCK_NB, "Unsupported lock mode"},
               {mine_.fd(), LOCK_UN, "Unsupported lock mode"},
               {mine_.fd(), LOCK_SH | LOCK_UN, "Cannot unlock flock on constructor"},
               {mine_.fd(), LOCK_EX | LOCK_UN | LOCK_NB, "Cannot unlock flock on constructor"},
               {mine_.fd(), LOCK_EX | LOCK_SH, "flock error: Invalid argument"}};
  for (const auto& c : cases) {
    EXPECT_EQ(Testing::failure([&] { UnixFlockRes(c.fd, c.mode); }), c.message);
    EXPECT_TRUE(tryLock(other_.fd(), LOCK_EX));
    ::flock(other_.fd(), LOCK_UN);
  }
}

TEST_F(UnixFlock, HoldsTheLockForItsLifeAndKeepsTheDescriptor) {
  for (const int mode : {LOCK_EX, LOCK_SH}) {
    {
      const UnixFlockRes lock(mine_.fd(), mode);
      EXPECT_FALSE(tryLock(other_.fd(), LOCK_EX));
      EXPECT_EQ(tryLock(other_.fd(), LOCK_SH), mode == LOCK_SH);
    }
    EXPECT_TRUE(isOpen(mine_.fd()));
    EXPECT_TRUE(tryLock(other_.fd(), LOCK_EX));
    ::flock(other_.fd(), LOCK_UN);
  }
}

}  // namespace
