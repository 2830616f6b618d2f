// Bus errors of mapped files that are cut short, survived or handed on.

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
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

TEST(Sigbus, AnAccessInsideAHandlerEndsOnItsOwn) {
  if (Testing::threadSanitized) GTEST_SKIP() << "the thread sanitizer takes SIGBUS for itself";
  GenericSigbusHandler::initialize(accessInside);
  MappedFile file;
  nested = &file;
  file.cutTo(pageSize);
  ::raise(SIGBUS);
  EXPECT_TRUE(std::exchange(nestedThrew, false));
  EXPECT_THROW(GenericSigbusHandler::guardedRead(&file.second()), SigbusException);
  GenericSigbusHandler::initialize([](int, siginfo_t*, void*) { return false; });
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

// How a SIGBUS that no guard serves ends, in a process of its own; each disposition, for a fault
// and for a signal that was sent.
enum class Before { byDefault, ignored, plainHandler, infoHandler };
class Unguarded : public testing::TestWithParam<std::tuple<Before, bool>> {};

void plainHandler(int) { ::_exit(3); }
void infoHandler(int, siginfo_t* info, void*) { ::_exit(info->si_code > 0 ? 4 : 5); }

[[noreturn]] void sufferSigbus(Before before, bool fault) {
  struct sigaction action = {};
  action.sa_handler = before == Before::ignored ? SIG_IGN : SIG_DFL;
  if (before == Before::plainHandler) action.sa_handler = plainHandler;
  if (before == Before::infoHandler) {
    action.sa_sigaction = infoHandler;
    action.sa_flags = SA_SIGINFO;
  }
  ::sigaction(SIGBUS, &action, nullptr);
  GenericSigbusHandler::initialize();
  GenericSigbusHandler::initialize();
  MappedFile file;
  MappedFile guarded;
  const MappedRegion region(guarded.begin(), guarded.size);
  file.cutTo(pageSize);
  if (fault) {
    file.second() = 1;
  } else {
    ::raise(SIGBUS);
  }
  ::_exit(6);
}

TEST_P(Unguarded, GoesToTheDispositionFromBefore) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing is installed yet
  const auto [before, fault] = GetParam();
  if (before == Before::byDefault || (before == Before::ignored && fault)) {
    EXPECT_EXIT(sufferSigbus(before, fault), testing::KilledBySignal(SIGBUS), "");
  } else {
    const int handled = before == Before::plainHandler ? 3 : fault ? 4 : 5;
    EXPECT_EXIT(sufferSigbus(before, fault),
                testing::ExitedWithCode(before == Before::ignored ? 6 : handled), "");
  }
}
INSTANTIATE_TEST_SUITE_P(Sigbus, Unguarded,
                         testing::Combine(testing::Values(Before::byDefault, Before::ignored,
                                                          Before::plainHandler,
                                                          Before::infoHandler),
                                          testing::Bool()));

}  // namespace
