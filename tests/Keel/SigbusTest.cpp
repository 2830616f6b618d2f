// Bus errors of mapped files that are cut short, survived or handed on.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "Keel/GenericSigbusHandler.h"
#include "testing/Sanitizers.h"

namespace {

using Keel::GenericSigbusHandler;
using Keel::MappedRegion;
using SigbusException = Keel::GenericSigbusHandler::SigbusException;

const auto pageSize = static_cast<size_t>(::sysconf(_SC_PAGESIZE));

// Two mapped pages of a file that can be cut and mended.
class MappedFile {
 public:
  MappedFile() {
    cutTo(size);
    void* begin = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(stream_), 0);
    if (begin == MAP_FAILED) throw std::runtime_error("cannot map a file");
    words_ = static_cast<volatile uint32_t*>(begin);
    words_[0] = 10;
    second() = 20;
  }
  ~MappedFile() {
    ::munmap(const_cast<uint32_t*>(words_), size);
    std::fclose(stream_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  void cutTo(size_t bytes) {
    if (::ftruncate(fileno(stream_), static_cast<off_t>(bytes)) != 0) throw std::runtime_error("");
  }
  const void* begin() const { return const_cast<const uint32_t*>(words_); }
  volatile uint32_t& first() const { return words_[0]; }
  volatile uint32_t& second() const { return words_[pageSize / sizeof(uint32_t)]; }

  const size_t size = 2 * pageSize;

 private:
  std::FILE* stream_ = std::tmpfile();
  volatile uint32_t* words_;
};

void readAndWriteACutFile() {
  MappedFile file;
  EXPECT_EQ(GenericSigbusHandler::guardedRead(&file.second()), 20u);
  file.cutTo(pageSize);
  for (int again = 0; again < 3; ++again) {
    EXPECT_THROW(GenericSigbusHandler::guardedRead(&file.second()), SigbusException);
    EXPECT_THROW(GenericSigbusHandler::guardedWrite(&file.second(), 1), SigbusException);
    GenericSigbusHandler::guardedWrite(&file.first(), 11);
    EXPECT_EQ(GenericSigbusHandler::guardedRead(&file.first()), 11u);
  }
  file.cutTo(file.size);
  GenericSigbusHandler::guardedWrite(&file.second(), 21);
  EXPECT_EQ(file.second(), 21u);
}

TEST(Sigbus, GuardedAccessThrowsAndTheNextOneWorks) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  GenericSigbusHandler::initialize();
  readAndWriteACutFile();
  std::thread other(readAndWriteACutFile);
  readAndWriteACutFile();
  other.join();
}

const MappedFile* nested = nullptr;
bool nestedThrew = false;

// An access of the handler's own, while the access that it was called for is still under way.
bool accessInside(int, siginfo_t*, void*) {
  try {
    GenericSigbusHandler::guardedRead(&nested->second());
  } catch (const SigbusException&) {
    nestedThrew = true;
  }
  return true;
}

TEST(Sigbus, ARegionThatWasCutReadsZeroesAndSaysSo) {
  MappedFile file;
  MappedFile sound;
  const MappedRegion soundRegion(sound.begin(), sound.size);
  {
    const MappedRegion region(file.begin(), file.size);
    file.cutTo(pageSize);
    EXPECT_EQ(file.first(), 10u);
    EXPECT_FALSE(region.isDamaged());
    EXPECT_EQ(file.second(), 0u);
    EXPECT_TRUE(region.isDamaged());
    file.second() = 5;
    EXPECT_EQ(file.second(), 5u);
    EXPECT_EQ(file.first(), 10u);
  }
  EXPECT_FALSE(soundRegion.isDamaged());
  EXPECT_FALSE(MappedRegion(sound.begin(), sound.size).isDamaged())
      << "a place that was used before";
}

// One word of a page that may not be touched: an access meets a SIGSEGV, whose handler sends the
// SIGBUS of the case and then opens the page.
struct Barred {
  Barred() {
    void* page = ::mmap(nullptr, pageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) throw std::runtime_error("cannot map a page");
    word = static_cast<uint32_t*>(page) + 16;
  }
  ~Barred() { ::munmap(page(), pageSize); }
  void* page() const { return word - 16; }

  uint32_t* word;
};

struct Sent {
  int code;
  uintptr_t offset;  // of the address, from the word
  bool hasAddress;
  bool throws;  // it counts as the access's own
};
const Barred* barred = nullptr;
const Sent* sent = nullptr;
int strayed = 0;

void sendAs(const Sent& as) {
  siginfo_t info = {};
  info.si_signo = SIGBUS;
  info.si_code = as.code;
  if (as.hasAddress)
    info.si_addr = reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(barred->word) + as.offset);
  if (as.code == BUS_MCEERR_AR) info.si_addr_lsb = 12;
  ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), ::gettid(), SIGBUS, &info);
}

void sendSigbus(int) {
  sendAs(*sent);
  ::mprotect(barred->page(), pageSize, PROT_READ);
}

TEST(Sigbus, AFaultWithoutAnAddressOrAtTheWordIsTheAccesssOwn) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes signals for itself";
  GenericSigbusHandler::initialize([](int, siginfo_t*, void*) { return ++strayed > 0; });
  struct sigaction action = {}, before = {};
  action.sa_handler = sendSigbus;
  action.sa_flags = SA_NODEFER;
  ::sigaction(SIGSEGV, &action, &before);
  const uintptr_t minusOne = static_cast<uintptr_t>(-1);
  const Sent table[] = {{BUS_ADRERR, 0, true, true},        {BUS_ADRERR, 3, true, true},
                        {BUS_ADRERR, 4, true, false},       {BUS_ADRERR, minusOne, true, false},
                        {BUS_OBJERR, 0, false, true},       {SI_KERNEL, 0, false, true},
                        {BUS_MCEERR_AR, 64, true, true},    {BUS_MCEERR_AR, 0, false, true},
                        {BUS_MCEERR_AR, 4096, true, false}, {BUS_MCEERR_AO, 0, true, false},
                        {SI_QUEUE, 0, true, false},         {SI_USER, 0, false, false}};
  for (const Sent& each : table) {
    SCOPED_TRACE(fmt::format("code {}, offset {}, {}", each.code, each.offset, each.hasAddress));
    const Barred page;
    barred = &page;
    sent = &each;
    strayed = 0;
    errno = EXDEV;
    if (each.throws) {
      EXPECT_THROW(GenericSigbusHandler::guardedRead(page.word), SigbusException);
    } else {
      EXPECT_EQ(GenericSigbusHandler::guardedRead(page.word), 0u);
      EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_EQ(strayed, each.throws ? 0 : 1);
  }
  ::sigaction(SIGSEGV, &before, nullptr);
  GenericSigbusHandler::initialize([](int, siginfo_t*, void*) { return false; });
}

constexpr Sent atTheWord = {BUS_ADRERR, 0, true, true};

// Accesses for a SIGBUS from elsewhere, one that succeeds and one that fails.
bool accessBothInside(int, siginfo_t*, void*) {
  if (::gettid() != ::getpid()) return ++strayed > 0;
  GenericSigbusHandler::guardedRead(&nested->first());
  return accessInside(0, nullptr, nullptr);
}

TEST(Sigbus, AGuardIsBackAfterAnInnerOneAndAWordMayStraddleAPage) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes signals for itself";
  GenericSigbusHandler::initialize();
  MappedFile file;
  nested = &file;
  const auto* straddling = reinterpret_cast<const volatile uint32_t*>(
      static_cast<const char*>(file.begin()) + pageSize - 2);
  file.cutTo(pageSize);
  EXPECT_THROW(GenericSigbusHandler::guardedRead(straddling), SigbusException);
  // A SIGBUS in the middle of an access, and one of another thread, leave its guard as it is.
  GenericSigbusHandler::initialize(accessBothInside);
  strayed = 0;
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) {
    ::raise(SIGBUS);
    std::thread([] { sendAs(atTheWord); }).join();
    sendAs(atTheWord);
    ::_exit(1);
  };
  action.sa_flags = SA_NODEFER;
  ::sigaction(SIGSEGV, &action, &before);
  const Barred page;
  barred = &page;
  EXPECT_THROW(GenericSigbusHandler::guardedRead(page.word), SigbusException);
  EXPECT_TRUE(std::exchange(nestedThrew, false));
  EXPECT_EQ(strayed, 1);
  ::sigaction(SIGSEGV, &before, nullptr);
  GenericSigbusHandler::initialize([](int, siginfo_t*, void*) { return false; });
}

// How a SIGBUS that no guard serves ends, in a process of its own, for a fault and for a signal
// that was sent: with the number of its exit, or killed by the signal.
constexpr int killed = -1;
constexpr int survived = 6;

void exitWithMask(int, siginfo_t* info, void*) {
  sigset_t now;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &now);
  ::_exit((info->si_code > 0 ? 10 : 20) + sigismember(&now, SIGBUS) +
          2 * sigismember(&now, SIGHUP));
}

int calls = 0;
struct sigaction replaced;
void callTwice(int) {
  if (++calls == 2) ::_exit(7);
}
// Hands on as handlers do.
void chain(int signal, siginfo_t* info, void* context) {
  if (++calls == 5) ::_exit(8);
  replaced.sa_sigaction(signal, info, context);
}

struct Previous {
  const char* name;
  struct sigaction action;
  int afterFault;
  int afterSignals;    // of two
  bool comes = false;  // only after the handler was installed, and calls it
};

struct sigaction plain(void (*handler)(int), int flags = 0) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  return action;
}
struct sigaction withInfo(void (*handler)(int, siginfo_t*, void*), int flags = 0) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  sigaddset(&action.sa_mask, SIGHUP);
  return action;
}

const Previous previous[] = {
    {"default", plain(SIG_DFL), killed, killed},
    {"default with information", plain(SIG_DFL, SA_SIGINFO), killed, killed},
    {"ignored", plain(SIG_IGN), killed, survived},
    {"ignored with information", plain(SIG_IGN, SA_SIGINFO), killed, survived},
    {"plain", plain(callTwice), 7, 7},
    {"plain, once", plain(callTwice, static_cast<int>(SA_RESETHAND)), killed, killed},
    {"with information", withInfo(exitWithMask), 13, 23},
    {"not deferred", withInfo(exitWithMask, SA_NODEFER), 12, 22},
    {"one that came later", withInfo(exitWithMask), 13, 23, true},
    {"one that calls back", withInfo(chain), killed, killed, true},
    {"likewise, not deferred", withInfo(chain, SA_NODEFER), killed, killed, true},
};

[[noreturn]] void sufferSigbus(const Previous& who, bool fault) {
  if (who.comes) {
    ::sigaction(SIGBUS, nullptr, &replaced);
    ::signal(SIGBUS, SIG_DFL);
    GenericSigbusHandler::initialize();
  }
  ::sigaction(SIGBUS, &who.action, &replaced);
  GenericSigbusHandler::initialize();
  GenericSigbusHandler::initialize();
  MappedFile file;
  MappedFile guarded;
  const MappedRegion region(guarded.begin(), guarded.size);
  file.cutTo(pageSize);
  // It is guarded, whoever had the signal in the meantime.
  try {
    GenericSigbusHandler::guardedRead(&file.second());
    ::_exit(9);
  } catch (const SigbusException&) {
  }
  if (fault) {
    file.second() = 1;
  } else {
    ::raise(SIGBUS);
    ::raise(SIGBUS);
  }
  ::_exit(survived);
}

class Unguarded : public testing::TestWithParam<std::tuple<size_t, bool>> {};

TEST_P(Unguarded, GoesToTheDispositionFromBefore) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing is installed yet
  const Previous& who = previous[std::get<0>(GetParam())];
  const bool fault = std::get<1>(GetParam());
  const int end = fault ? who.afterFault : who.afterSignals;
  SCOPED_TRACE(who.name);
  if (end == killed) {
    EXPECT_EXIT(sufferSigbus(who, fault), testing::KilledBySignal(SIGBUS), "");
  } else {
    EXPECT_EXIT(sufferSigbus(who, fault), testing::ExitedWithCode(end), "");
  }
}
INSTANTIATE_TEST_SUITE_P(Sigbus, Unguarded,
                         testing::Combine(testing::Range(size_t{0}, std::size(previous)),
                                          testing::Bool()));

}  // namespace
