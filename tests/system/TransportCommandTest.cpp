// The command line over the transports to hardware, with simulated buses put under the program.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "testing/RegisterWindow.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"
#include "tests/Shoal/Table.h"
#include "tests/system/Korureg.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using Testing::Outcome;

constexpr const char* mapText =
    "number,name,type,writeable,width\n"
    "1,control,ctl,true,16\n"
    "2,mode,cfg,true,16\n";

const std::string buses = "i2c /dev/i2c-1 0x50 8\ni2c /dev/i2c-2 0x51 16\nspi /dev/spidev0.0\n";

class KoruregTransport : public testing::Test {
 protected:
  Testing::Command command(const std::string& words, const char* mapPath) const {
    return Korureg::command(
        fmt::format("--map {} {}", mapPath, words),
        {"LD_PRELOAD=" KORU_BUS_SIMULATOR_LIBRARY, "ASAN_OPTIONS=verify_asan_link_order=0",
         "KORU_BUS_SIMULATOR=" + directory.path()});
  }
  Testing::Command command(const std::string& words) const { return command(words, map.path()); }
  Outcome run(const std::string& words) const { return Testing::run(command(words)); }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(directory.file(name)) << text;
  }
  std::string takeLedger() const {
    const std::string text = Tables::bytesOf(directory.file("ledger"));
    std::filesystem::remove(directory.file("ledger"));
    return text;
  }

  const Testing::TempFile map{mapText};
  const Testing::StateDirectory directory;
};

TEST_F(KoruregTransport, SeesEachAccessThroughToItsEnd) {
  write("buses", buses);
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"--i2c /dev/i2c-1:0x50,word",
       "open /dev/i2c-1\nslave 50\n50 W 01 1234\n50 R 01\n50 W 01 12f4\nclose\n", true},
      {"--relay /dev/i2c-2:81",
       "open /dev/i2c-2\nlock\nslave 51\n51 w 00 01 00 00 12 34\nunlock\nlock\n51 w 00 01\n"
       "51 r 00 +4\nunlock\nlock\n51 w 00 01 00 00 12 f4\nunlock\nclose\n",
       true},
      {"--spi /dev/spidev0.0", "open /dev/spidev0.0\nspi 01 12 34\nclose\n", false},
  };
  for (const auto& [way, ledger, reads] : cases) {
    SCOPED_TRACE(way);
    const Outcome outcome =
        run(fmt::format("{} --json write control=0x1234 {}", way, reads ? "control[7:4]=0xf" : ""));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(takeLedger(), testing::StartsWith(ledger));
    if (reads) {
      EXPECT_THAT(run(fmt::format("{} read control", way)).out, HasSubstr(" 0x12f4 "));
      takeLedger();
    }
  }
}

// What a transport cannot carry as it is, is not sent in part, nor to another register.
TEST_F(KoruregTransport, RefusesWhatItCannotCarry) {
  write("buses", buses);
  const Testing::TempFile wide("number,name,type,writeable,width\n1,wide,cfg,true,32\n");
  const std::pair<const char*, const char*> cases[] = {{"read wide", "read wide"},
                                                       {"write wide=1", "write 0x1 to wide"}};
  for (const auto& [words, attempt] : cases) {
    Korureg::expectFailure(
        Testing::run(command(std::string("--i2c /dev/i2c-1:0x50,word ") + words, wide.path())), 1,
        fmt::format("cannot {} over i2c: it has 32 bits, and a word carries 16 at once", attempt));
    EXPECT_THAT(takeLedger(), testing::Not(testing::ContainsRegex("[RW] ")));
  }
}

TEST_F(KoruregTransport, MapsAFile) {
  Testing::RegisterWindow window(4096);
  window.atIs(8, 0xffff1234);
  const std::string way = fmt::format("--pci {} ", window.path());
  EXPECT_EQ(run(way + "write control=5").exitCode, 0);
  EXPECT_EQ(window.at(4), 5u);
  EXPECT_THAT(run(way + "read mode").out, HasSubstr(" 0x1234 "));
}

TEST_F(KoruregTransport, SaysWhatToDoAboutAFailure) {
  // With a line behind the buses.
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"--i2c /dev/i2c-1:0x50 read mode", fmt::format("fault 1 {} 9", EACCES),
       "Error opening I2C device /dev/i2c-1: Permission denied (13); run as root, or as a member "
       "of the group that 'ls -lL /dev/i2c-1' shows"},
      {"--i2c /dev/i2c-9:0x50 read mode", "",
       "Error opening I2C device /dev/i2c-9: No such file or directory (2); there is no such bus: "
       "'i2cdetect -l' lists those there are, 'modprobe i2c-dev' makes their nodes"},
      {"--i2c /dev/i2c-1:0x50 read mode", fmt::format("fault 2 {} 9", EBUSY),
       "Error setting peripheral address to 0x50: Device or resource busy (16); a kernel driver "
       "uses the address: 'readlink /sys/bus/i2c/devices/1-0050/driver' names it, writing 1-0050 "
       "to its file 'unbind' takes it off"},
      {"--i2c /dev/i2c-1:0x33,word read mode", "",
       "cannot read mode over i2c: I2C word read from address 0x2 failed: No such device or "
       "address (6); nothing acknowledges: check the address 0x33 and the chip's power; 'i2cdetect "
       "-y 1' shows who answers"},
      {"--i2c /dev/i2c-1:0x50,block write mode=1", "",
       "'i2cdetect -F 1' shows which ones it can, with ,word there are words"},
      {"--i2c /dev/null:0x50 read mode", "", "/dev/null is no I2C bus"},
      {"--relay /dev/i2c-2:0x33 write mode=1", "",
       "cannot write 0x1 to mode over relay: write of offset 0x2 of device 0x33 failed: No such "
       "device or address (6); nothing acknowledges"},
      {"--pci 03:00.7/5 read mode", "",
       "cannot open /sys/bus/pci/devices/0000:03:00.7/resource5: No such file or directory; 'lspci "
       "-D' lists the devices"},
      {"--pci /dev/null read mode", "", "/dev/null has no register: its size is 0"},
      {"--spi /dev/spidev9.0 write mode=1", "", "'ls /dev/spidev*' shows the devices there are"},
      {"--spi /dev/spidev0.0 write mode=1", fmt::format("fault 2 {} 9", ESHUTDOWN),
       "cannot write 0x1 to mode over spi: Cannot send after transport endpoint shutdown (108); "
       "the device has gone"},
      {"--spi /dev/spidev0.0 read mode", "",
       "cannot read mode over spi: SPI read not implemented!"},
  };
  for (const auto& [words, fault, message] : cases) {
    SCOPED_TRACE(words);
    write("buses", buses + fault);
    const Outcome outcome = run(words);
    EXPECT_THAT(outcome.err, HasSubstr(message));
    EXPECT_EQ(outcome.exitCode, 1);
  }
}

TEST_F(KoruregTransport, RefusesAWayThatCannotBe) {
  const std::pair<const char*, const char*> cases[] = {
      {"--mock --i2c /dev/i2c-1:0x50 read mode",
       "the chip is reached one way only: --mock or --i2c"},
      {"--i2c /dev/i2c-1 read mode",
       "--i2c: '/dev/i2c-1' is no chip on a bus (write /dev/i2c-1:0x50, or with a form behind it"},
  };
  for (const auto& [words, message] : cases) {
    SCOPED_TRACE(words);
    const Outcome outcome = run(words);
    EXPECT_THAT(outcome.err, HasSubstr(message));
    EXPECT_EQ(outcome.exitCode, 2);
  }
}

// Steered from outside while the program runs.
TEST_F(KoruregTransport, WatchesAChipThatStopsAnsweringAndComesBack) {
  write("buses", buses);
  Testing::Process watch(command("--i2c /dev/i2c-1:0x50,word watch mode --interval 0.001"));
  EXPECT_THAT(watch.line(), EndsWith("mode  0x0000"));
  write("silent", "");
  EXPECT_THAT(watch.line(), EndsWith("mode  0x0000 -> failed"));
  std::filesystem::remove(directory.file("silent"));
  EXPECT_THAT(watch.line(), EndsWith("mode  failed -> 0x0000"));
  watch.signal(SIGTERM);
}

}  // namespace
