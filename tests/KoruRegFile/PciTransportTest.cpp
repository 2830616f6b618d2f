// The transport over memory windows and the platform's accessor to them.

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "testing/Expect.h"
#include "testing/RecordingTraceSink.h"
#include "testing/RegisterWindow.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::PciTransportMethodImpl;
using Plat::PaxImplGlobalControl;
using Plat::PciPaxImpl;
using Testing::failure;
using SigbusException = Keel::GenericSigbusHandler::SigbusException;

constexpr size_t windowSize = 3 * 4096;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "0,first,cfg,true,32\n"
    "1,half,cfg,true,16\n"
    "2,odd,cfg,true,12\n"
    "2048,far,cfg,true,32\n"
    "3072,beyond,cfg,true,32\n";

// An accessor that tells what is asked of it and leaves everything as it is.
struct IdleAccessor : PciPaxImpl {
  IdleAccessor() : PciPaxImpl("idle") {}
  void read32(uint32_t a, uint32_t&) const override { calls += fmt::format("read {:#x};", a); }
  void write32(uint32_t a, uint32_t v) const override {
    calls += fmt::format("write {:#x} {:#x};", a, v);
  }
  void guardedRead32(uint32_t a, uint32_t&) const override {
    calls += fmt::format("guarded read {:#x};", a);
  }
  void guardedWrite32(uint32_t a, uint32_t v) const override {
    calls += fmt::format("guarded write {:#x} {:#x};", a, v);
  }
  mutable std::string calls;
};

size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class Pci : public testing::Test {
 protected:
  PciTransportMethodImpl make(const Orb::Ptr<Plat::PaxImpl>& pax) const {
    return {pax, csv.path(), nullptr};
  }

  const Testing::TempFile csv{map};
  Testing::RegisterWindow window{windowSize};
};

TEST_F(Pci, ReadsAndWritesTheWindow) {
  for (const bool raised : {false, true}) {
    const auto pax = Plat::pciPaxImplFactory("pci0", window.path());
    pax->sigbusRaisedIs(raised);
    auto transport = make(pax);
    transport.regWrite("first", 0x11223344);
    transport.regWrite("half", 0xdeadbeef);
    transport.regWrite("far", 7);
    EXPECT_EQ(window.at(0), 0x11223344u);
    EXPECT_EQ(window.at(4), 0xdeadbeefu) << "written whole";
    EXPECT_EQ(window.at(8192), 7u);
    window.atIs(4, 0xabcd1234);
    window.atIs(8, 0xffffffff);
    EXPECT_EQ(transport.regRead("half"), 0x1234u);
    EXPECT_EQ(transport.regRead("odd"), 0xfffu);
    EXPECT_EQ(transport.regRead("first"), 0x11223344u);
    EXPECT_EQ(failure([&] { transport.regRead("beyond"); }),
              "pci0: register address 0x3000 lies beyond the window of 0x3000 bytes");
  }
}

TEST_F(Pci, TheModeIsChosenWhenTheTransportIsMade) {
  PaxImplGlobalControl::sigbusHandlerAutoInstallIs(true);
  const auto pax = Orb::make<IdleAccessor>();
  pax->sigbusRaisedIs(true);
  auto plain = make(pax);
  EXPECT_TRUE(PaxImplGlobalControl::sigbusHandlerAutoInstall());
  pax->sigbusRaisedIs(false);
  auto guarded = make(pax);
  EXPECT_FALSE(PaxImplGlobalControl::sigbusHandlerAutoInstall());
  plain.regWrite("half", 0x12345678);
  EXPECT_EQ(plain.regRead("first"), 0xffffffffu);
  guarded.regWrite("half", 1);
  EXPECT_EQ(guarded.regRead("odd"), 0xfffu) << "untouched by the accessor, then masked";
  EXPECT_EQ(pax->calls, "write 0x4 0x12345678;read 0x0;guarded write 0x4 0x1;guarded read 0x8;");
}

TEST_F(Pci, NeedsAnAccessorToPci) {
  for (const auto& pax : {Orb::Ptr<Plat::PaxImpl>(), Orb::make<Plat::PaxImpl>("other")}) {
    EXPECT_EQ(failure([&] { make(pax); }), "PciPaxImpl cast error!");
  }
}

volatile sig_atomic_t raised = 0;

// Of an accessor that is not ready: what comes first, and whether there is an access.
TEST_F(Pci, AnUnreadyDeviceIsABusError) {
  const Testing::RecordedTraces traces("PciTransportMethodImpl", 0);
  const auto model = Hardware::KoruRegFile::hardwareRegisterFileFactory("model");
  model->regIs({"wide", Hardware::KoruRegFile::HardwareRegisterType::cfg, true, 0, 33, 32});
  const auto pax = Orb::make<IdleAccessor>();
  PciTransportMethodImpl guarded(pax, "", model);
  EXPECT_EQ(failure([&] { guarded.regRead("wide"); }), "Register wide size not supported!");
  pax->hardwareReadyIs(false);
  EXPECT_FALSE(guarded.hardwareReady());
  EXPECT_THROW(guarded.regRead("nobody"), std::runtime_error);
  EXPECT_THROW(guarded.regWrite("wide", 1), SigbusException);
  EXPECT_EQ(failure<SigbusException>([&] { guarded.regRead("wide"); }), "Caught SIGBUS");
  EXPECT_EQ(pax->calls, "");

  pax->sigbusRaisedIs(true);
  PciTransportMethodImpl plain(pax, csv.path(), nullptr);
  PciTransportMethodImpl plainWide(pax, "", model);
  struct sigaction counting = {}, previous = {};
  counting.sa_handler = [](int) { raised = raised + 1; };
  ::sigaction(SIGBUS, &counting, &previous);
  raised = 0;
  EXPECT_EQ(plain.regRead("first"), 0xffffffffu);
  EXPECT_EQ(failure([&] { plainWide.regRead("wide"); }), "Register wide size not supported!");
  EXPECT_EQ(raised, 2);
  ::sigaction(SIGBUS, &previous, nullptr);
  EXPECT_EQ(pax->calls, "read 0x0;") << "a process that survives goes on";
  EXPECT_THAT(traces.texts(), testing::ElementsAre("Hardware not ready, throwing SIGBUS",
                                                   "Hardware not ready, throwing SIGBUS",
                                                   "Hardware not ready, raising SIGBUS",
                                                   "Hardware not ready, raising SIGBUS"));
}

TEST_F(Pci, ABusErrorIsTheSignalItIsUnlessItIsGuarded) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto readCut = [this] {
    std::signal(SIGBUS, SIG_DFL);  // sanitizers have a handler of their own
    const auto pax = Plat::pciPaxImplFactory("pci0", window.path());
    window.sizeIs(4096);
    uint32_t value = 0;
    pax->read32(8192, value);
  };
  EXPECT_EXIT(readCut(), testing::KilledBySignal(SIGBUS), "");
}

TEST_F(Pci, AnOddAddressIsAnError) {
  const auto pax = Plat::pciPaxImplFactory("pci0", window.path());
  uint32_t value = 5;
  const auto bad = [&](uint32_t address, const char* what) {
    for (const auto& message :
         {failure([&] { pax->read32(address, value); }), failure([&] { pax->write32(address, 1); }),
          failure([&] { pax->guardedRead32(address, value); }),
          failure([&] { pax->guardedWrite32(address, 1); })}) {
      EXPECT_EQ(message, fmt::format("pci0: register address {:#x} {}", address, what));
    }
  };
  bad(2, "is no multiple of 4");
  bad(windowSize, "lies beyond the window of 0x3000 bytes");
  bad(0xfffffffc, "lies beyond the window of 0x3000 bytes");
  EXPECT_EQ(value, 5u);
}

TEST_F(Pci, AWindowThatCannotBeMappedLeavesNothingOpen) {
  const Testing::RegisterWindow empty(3);
  const KoruRegFile::Utils::UnixFdRes huge(::memfd_create("huge", MFD_CLOEXEC));
  ASSERT_EQ(::ftruncate(huge.fd(), off_t{1} << 47), 0) << "more than a process can map";
  const std::string hugePath = fmt::format("/proc/self/fd/{}", huge.fd());
  const size_t before = openDescriptors();
  const auto tryMap = [](const std::string& path) {
    return failure([&] { Plat::pciPaxImplFactory("pci0", path); });
  };
  EXPECT_EQ(tryMap("/nonexistent"), "cannot open /nonexistent: No such file or directory");
  EXPECT_EQ(tryMap("/"), "cannot open /: Is a directory");
  EXPECT_EQ(tryMap(empty.path()), std::string(empty.path()) + " has no register: its size is 3");
  EXPECT_EQ(tryMap(hugePath), "cannot map " + hugePath + ": Cannot allocate memory");
  EXPECT_EQ(openDescriptors(), before);
}

// A BAR smaller than a page may begin inside one; sysfs maps from the beginning of the page.
TEST(PciWindow, BeginsWhereTheBarDoes) {
  const Testing::StateDirectory directory;
  std::ofstream(directory.file("resource"))
      << "0x00000000febf0000 0x00000000febf0fff 0x0000000000040200\n"
         "0x00000000febf1100 0x00000000febf11ff 0x0000000000040200\n";
  const std::pair<const char*, uint32_t> bars[] = {{"resource0", 0x61616161},
                                                   {"resource1", 0x62626262}};
  for (const auto& [bar, expected] : bars) {
    std::ofstream(directory.file(bar)) << std::string(0x100, 'a') << std::string(0x100, 'b');
    uint32_t value = 0;
    Plat::pciPaxImplFactory("bar", directory.file(bar))->read32(0, value);
    EXPECT_EQ(value, expected);
  }
}

}  // namespace
