// An access by name allocates nothing and makes no system call of its own. A program of its own,
// since it replaces the allocator and confines a child process.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "KoruRegFile/I2cTransportMethodImpl.h"
#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/ShadowSms.h"
#include "KoruRegFile/TransportMethod.h"
#include "testing/ArrayTransport.h"
#include "testing/RegisterWindow.h"
#include "testing/Sanitizers.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"

namespace {
size_t allocations = 0;
}

// Not inlined: g++ would see malloc() paired with delete, or new with free(), and object.
[[gnu::noinline]] void* operator new(size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

enum class Over { memory, pci };

class AccessCost : public testing::TestWithParam<Over> {
 protected:
  AccessCost() {
    std::string map = "number,name,type,writeable,width\n";
    for (size_t i = 0; i < count; ++i) {
      names.emplace_back(fmt::format("block_{}_with_a_long_name", i));
      map += fmt::format("{},{},cfg,true,32\n", i, names.back());
    }
    const Testing::TempFile file(map);
    if (GetParam() == Over::memory) {
      tm->implPtrIs(std::make_unique<Testing::ArrayTransport>(file.path(), count));
    } else {
      tm->implPtrIs(std::make_unique<KoruRegFile::PciTransportMethodImpl>(
          Plat::pciPaxImplFactory("pci0", window.path()), file.path(), nullptr));
    }
  }

  // Returns the sum of what was read.
  uint64_t accessAll() const {
    uint64_t sum = 0;
    uint32_t value = 0;
    for (const Orb::String& name : names) {
      tm->regWrite(name, ++value);
      sum += tm->regRead(name);
      tm->regReadWithCallback(name, [&sum](auto, auto, uint32_t read) { sum += read; });
    }
    return sum;
  }

  static constexpr size_t count = 1000;
  static constexpr uint64_t expectedSum = count * (count + 1);
  const Testing::RegisterWindow window{count * sizeof(uint32_t)};
  const Orb::Ptr<KoruRegFile::TransportMethod> tm = KoruRegFile::transportMethodFactory("chip0");
  std::vector<Orb::String> names;
};

TEST_P(AccessCost, NoAllocation) {
  const size_t before = allocations;
  const uint64_t sum = accessAll();
  EXPECT_EQ(allocations - before, 0u);
  EXPECT_EQ(sum, expectedSum);
}

// A field write down to the register, too, whatever the number of fields of its register.
TEST(FieldWriteCost, NoAllocation) {
  const Testing::StateDirectory state;
  const auto manager = OrbPool::entityManagerFactory();
  const auto chip = KoruRegFile::logicalChipFactory("chip0");
  std::string map = "number,name,type,writeable,width\n";
  std::vector<Orb::String> names;
  for (size_t i = 0; i < 200; ++i) {
    names.emplace_back(fmt::format("field_{}_with_a_long_name", i));
    map += fmt::format("{},{},cfg,true,32\n", i, names.back());
    chip->populateLogicalField("control", names.back(), static_cast<uint8_t>(i % 32), 8, 0);
    chip->populatePhysicalField("control", names.back(), 0, 8);
    chip->translation()->populate("control", names.back(), "control", names.back());
  }
  chip->mountShadowFields(manager, "config", "status");
  chip->readyIs(true);
  const Testing::TempFile file(map);
  const auto transport = KoruRegFile::transportMethodFactory("chip0");
  transport->implPtrIs(std::make_unique<Testing::ArrayTransport>(file.path(), names.size()));
  const auto writeSm = KoruRegFile::logicalWriteSmFactory(chip);
  const auto shadowSm = KoruRegFile::shadowFieldsSmFactory(
      chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false);
  const Orb::String control("control");
  for (const Orb::String& name : names) chip->fieldWrite(control, name, 1);
  const size_t before = allocations;
  for (const Orb::String& name : names) chip->fieldWrite(control, name, 2);
  EXPECT_EQ(allocations - before, 0u);
  EXPECT_EQ(transport->regRead(names[7]), 2u);
  // Names in whatever form they come.
  const std::string text(names[8]);
  const size_t made = allocations;
  chip->fieldWrite("control", "field_7_with_a_long_name", 5);
  chip->fieldWrite(control, text, 6);
  transport->regWrite("field_9_with_a_long_name", 7);
  EXPECT_EQ(transport->regRead(text), 6u);
  EXPECT_EQ(transport->regRead(std::string_view("field_9_with_a_long_name|").substr(0, 24)), 7u);
  EXPECT_EQ(chip->fieldGetLastWritten("control", "field_7_with_a_long_name"), 5u);
  EXPECT_EQ(allocations - made, 0u);
  const auto field = chip->field(control, names[7]);
  const auto reg = transport->reg(names[7]);
  const size_t found = allocations;
  for (const uint32_t value : {3u, 4u}) field.write(value);
  EXPECT_EQ(reg.read(), 4u);
  EXPECT_EQ(allocations - found, 0u);
}

// The system calls of the confined child, which are not made: each seems to succeed with 0.
int made[16];
size_t madeCount = 0;

void noteSystemCall(int, siginfo_t* info, void* context) {
  if (madeCount < std::size(made)) made[madeCount++] = info->si_syscall;
#if defined(__x86_64__)
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RAX] = 0;
#else
  static_cast<void>(context);
#endif
}

// Has each system call of the calling process noted, but for the exit and a handler's return.
bool confineSystemCalls() {
  struct sigaction noting = {};
  noting.sa_sigaction = noteSystemCall;
  noting.sa_flags = SA_SIGINFO | SA_NODEFER;
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
  };
  sock_fprog program = {static_cast<unsigned short>(std::size(filter)), filter};
  return ::sigaction(SIGSYS, &noting, nullptr) == 0 &&
         ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Expects `action` to make exactly these system calls, in a child process that does nothing else.
void expectSystemCalls(const std::vector<int>& expected, const std::function<void()>& action) {
  if (Testing::sanitized) GTEST_SKIP() << "sanitizers make system calls of their own";
  constexpr int notConfined = 77;
  const pid_t child = ::fork();
  if (child == 0) {
    if (!confineSystemCalls()) ::_exit(notConfined);
    action();
    const bool asExpected = std::equal(made, made + madeCount, expected.begin(), expected.end());
    ::syscall(SYS_exit, asExpected ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == notConfined) {
    GTEST_SKIP() << "this kernel confines no system calls";
  }
  EXPECT_EQ(status, 0);
}

TEST_P(AccessCost, NoSystemCall) {
  expectSystemCalls({}, [this] { accessAll(); });
}

INSTANTIATE_TEST_SUITE_P(Transports, AccessCost, testing::Values(Over::memory, Over::pci));

TEST(I2cAccessCost, MakesExactlyTheseSystemCalls) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "system calls are counted on x86-64 only";
#endif
  using namespace KoruRegFile::i2cflavspec;
  const HardwareRegister reg("r", {}, true, 0x12, 32, 32);
  expectSystemCalls({SYS_flock, SYS_ioctl, SYS_ioctl, SYS_flock}, [&] { readDataBlock(5, reg); });
  expectSystemCalls({SYS_flock, SYS_ioctl, SYS_flock}, [&] { writeDataBlock(5, reg, 1); });
  expectSystemCalls({SYS_ioctl}, [&] { readDataWord(5, reg); });
  expectSystemCalls({SYS_ioctl}, [&] { writeDataWord(5, reg, 1); });
}

}  // namespace
