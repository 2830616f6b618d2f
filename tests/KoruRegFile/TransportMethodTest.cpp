#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EntityType.h"
#include "testing/Expect.h"
#include "testing/MemoryTransport.h"
#include "testing/MockValueFile.h"
#include "testing/RecordingTraceSink.h"
#include "testing/TempFile.h"

namespace {

using namespace KoruRegFile;
using Hardware::KoruRegFile::HardwareRegisterType;
using Keel::GenericSigbusHandler;
using testing::ElementsAre;
using Testing::failure;
using testing::IsEmpty;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "0,status,sts,false,16\n"
    "1,control,ctl,true,32\n";

struct ErrorWatcher : TransportMethodError::Notifiee {
  explicit ErrorWatcher(const Orb::Ptr<TransportMethodError>& error) : Notifiee(error) {
    hasNotificationActiveIs(true);
  }
  void onError() override { told.push_back(notifier()->error()); }
  std::vector<bool> told;
};

// A descriptor of any triple, of a class that no builder expects.
struct OddDescriptor : BaseTransportDescriptor {
  OddDescriptor(TransportType type, TransportProtocol protocol, TransportFlavour flavour)
      : BaseTransportDescriptor(type, protocol, flavour) {}
};

TEST(TransportDescriptors, CarryTheirTripleAndParameters) {
  const auto pax = Orb::make<Plat::Pax>("spi0");
  const auto paxImpl = Orb::make<Plat::PaxImpl>("pci0");
  const auto relay = Orb::make<Hardware::Relay>("relay0", "/dev/null");
  const auto pci = pciTransportDescriptorFactory(paxImpl);
  const auto agent = i2cRelayTransportDescriptorFactory(relay, 0x105);
  const auto i2c =
      i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataWord, "/dev/i2c-1", 0x50);
  const auto spi = spiTransportDescriptorFactory(pax);
  const auto triple = [](const BaseTransportDescriptor& d) {
    std::ostringstream text;
    text << d.type() << ' ' << d.protocol() << ' ' << d.flavour();
    return text.str();
  };
  EXPECT_EQ(triple(*pci), "pci DirectAccess PciPax");
  EXPECT_EQ(triple(*agent), "i2c I2cRelay I2cSmbusRelay");
  EXPECT_EQ(triple(*i2c), "i2c I2cSmbusIoctl I2cSmbusDataWord");
  EXPECT_EQ(triple(*spi), "spi SpiAccellerator SpiPax");
  EXPECT_EQ(triple(*mockTransportDescriptorFactory()), "mock mockProtocol mockFlavour");
  EXPECT_EQ(triple(BaseTransportDescriptor(TransportType::spi)), "spi DirectAccess PciPax");
  EXPECT_EQ(pci->pciPax(), paxImpl);
  EXPECT_EQ(agent->relay(), relay);
  EXPECT_EQ(agent->devId(), 0x105u);
  EXPECT_EQ(i2c->devNode(), "/dev/i2c-1");
  EXPECT_EQ(i2c->devId(), 0x50u);
  EXPECT_EQ(spi->spiPax(), pax);
  EXPECT_EQ(Orb::attributeStrep(*i2c, "flavour"), "I2cSmbusDataWord");
  EXPECT_EQ(Orb::attributeStrep(*spi, "spiPax"), "Entity('Plat::Pax', 'spi0')");
}

TEST(TransportEnums, ConvertByNumberAndName) {
  EXPECT_STREQ(stringValue(TransportProtocolInstance(3)), "SpiAccellerator");
  EXPECT_EQ(TransportProtocolInstance("SpiAccellerator"), TransportProtocol::SpiAccellerator);
  EXPECT_EQ(TransportTypeInstance("mock"), TransportTypeInstance(3));
  EXPECT_EQ(TransportFlavourInstance("SpiPax"), TransportFlavourInstance(4));
  EXPECT_THROW(TransportProtocolInstance("SpiAccelerator"), Orb::RangeException);
  EXPECT_THROW(TransportTypeInstance(4), Orb::RangeException);
  EXPECT_THROW(TransportFlavourInstance(256), Orb::RangeException);
}

class Init : public testing::Test {
 protected:
  const Testing::MockValueFile valueFile;
  const Testing::TempFile csv{map};
  const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile> model =
      Hardware::KoruRegFile::hardwareRegisterFileFactory("model");
  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  const Orb::Ptr<BaseTransportDescriptor> mock = mockTransportDescriptorFactory();
};

TEST_F(Init, TakesTheFileBeforeTheModel) {
  model->regIs({"gain", HardwareRegisterType::cfg, true, 4, 32, 32});
  tm->fullInit(mock, {csv.path(), model});
  EXPECT_FALSE(tm->hasRegName("gain"));
  EXPECT_EQ(tm->regNameToAddr("control"), 4u);
  tm->fullInit(mock, {"", model});
  EXPECT_EQ(tm->regAddrToName(4), "gain");
}

TEST_F(Init, SaysWhatIsMissingAndInWhichOrder) {
  EXPECT_EQ(failure([&] { tm->init(nullptr, ""); }), "CSV and ORB Ptr cannot be both empty.");
  EXPECT_EQ(failure([&] { tm->init(nullptr, "/nonexistent"); }), "TransportDescriptor is null!");
  const auto unbuildable =
      i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusRelay, "/dev/i2c-1", 0x50);
  EXPECT_EQ(failure([&] { tm->init(unbuildable, "/nonexistent"); }),
            "Unknown transport type 'i2c'");
  EXPECT_EQ(tm->descriptor(), unbuildable);
  EXPECT_EQ(failure([&] { tm->init(mock, "/nonexistent"); }),
            "Error opening CSV file /nonexistent");
  EXPECT_EQ(tm->descriptor(), mock);
}

TEST_F(Init, AFailedOneLeavesNoImplementation) {
  tm->init(mock, csv.path());
  EXPECT_EQ(tm->regRead("status"), 0u);
  EXPECT_THROW(tm->init(mock, "/nonexistent"), std::runtime_error);
  EXPECT_EQ(tm->implPtr(), nullptr);
  tm->init(mock, csv.path());
  EXPECT_THROW(tm->init(mock, ""), std::runtime_error);
  EXPECT_EQ(tm->implPtr(), nullptr);
}

TEST_F(Init, EveryOperationNeedsAnImplementation) {
  const auto notifier = tm->errorNotifierIs("chip0");
  const std::vector<std::function<void()>> operations = {
      [&] { tm->regRead("status"); },
      [&] { tm->regWrite("control", 1); },
      [&] { tm->regReadWithCallback("status", {}); },
      [&] { tm->regWriteWithCallback("control", 1, {}); },
      [&] { tm->regNameToAddr("status"); },
      [&] { tm->regAddrToName(0); },
      [&] { tm->hasRegName("status"); },
      [&] { tm->regList(); },
  };
  for (const auto& operation : operations) {
    EXPECT_EQ(failure(operation), "TransportMethod implementation does not exist");
  }
  EXPECT_FALSE(notifier->error());
}

TEST_F(Init, AnInitializedMockWorksByNameToo) {
  const auto call = [&](const char* operation, std::initializer_list<std::string_view> arguments) {
    return Orb::callOperation(*tm, operation, {arguments.begin(), arguments.size()});
  };
  tm->init(mock, csv.path());
  EXPECT_EQ(call("regWrite", {"'control'", "42"}), "None");
  EXPECT_EQ(call("regRead", {"'control'"}), "42");
  EXPECT_EQ(call("regAddrToName", {"4"}), "'control'");
  EXPECT_EQ(call("hasRegName", {"'nobody'"}), "False");
  EXPECT_THROW(call("regWrite", {"'control'", "4294967296"}), Orb::RangeException);
  EXPECT_EQ(Orb::attributeStrep(*tm, "errorNotifier"), "None");
}

class Access : public testing::Test {
 protected:
  Access() {
    auto owned = std::make_unique<Testing::MemoryTransport>(csv.path());
    memory = owned.get();
    tm->implPtrIs(std::move(owned));
  }
  template <class Exception, class... Args>
  void failWith(const char* reg, Args... args) {
    memory->faultIs(reg, [args...] { throw Exception(args...); });
  }
  static uint64_t count(const char* name) {
    for (const auto& reading : Orb::counterReadings()) {
      if (reading.owner == "chip0" && reading.name == name) return reading.value;
    }
    return 0;
  }

  const Testing::TempFile csv{map};
  Testing::MemoryTransport* memory;
  const Orb::Ptr<TransportMethod> tm = transportMethodFactory("chip0");
  const Testing::RecordedTraces traces{"tryPerformIO", 0};
};

TEST_F(Access, ReadsAndWritesByName) {
  tm->regWrite("control", 7);
  EXPECT_EQ(tm->regRead("control"), 7u);
  EXPECT_THAT(memory->ledger(), ElementsAre("write control 7", "read control 7"));
  EXPECT_EQ(tm->regList()->registerName().size(), 2u);
  EXPECT_THAT(traces.texts(), IsEmpty());
}

TEST_F(Access, AFailureIsTracedFlaggedOnceAndSwallowed) {
  ErrorWatcher watcher(tm->errorNotifierIs("chip0"));
  EXPECT_EQ(tm->regRead("nobody"), 0xFFFFFFFF);
  failWith<std::system_error>("control", std::make_error_code(std::errc::io_error));
  tm->regWrite("control", 1);
  EXPECT_THAT(watcher.told, ElementsAre(true));
  EXPECT_THAT(traces.texts(),
              ElementsAre("TransportMethod error on register 'nobody': RegisterFile does not have "
                          "register 'nobody'!",
                          "TransportMethod exception caught, Notifying agent: chip0",
                          "TransportMethod error on register 'control': Input/output error",
                          "TransportMethod exception caught, Notifying agent: chip0"));
  for (const auto& message : traces.messages()) EXPECT_EQ(message.level, 0);
  EXPECT_EQ(traces.messages()[0].category, "tryPerformIO");
  EXPECT_EQ(traces.messages()[1].category, "handleExceptionGeneric");

  watcher.notifier()->errorIs(false);
  tm->regRead("nobody");
  EXPECT_THAT(watcher.told, ElementsAre(true, false, true));
}

TEST_F(Access, ABusErrorIsTracedFlaggedAndSwallowed) {
  const auto error = tm->errorNotifierIs("chip0");
  failWith<GenericSigbusHandler::SigbusException>("status");
  EXPECT_EQ(tm->regRead("status"), 0xFFFFFFFF);
  EXPECT_TRUE(error->error());
  EXPECT_EQ(traces.texts().at(0), "Got SIGBUS when performing operation on register 'status'");
}

TEST_F(Access, WithoutANotifierAFailureIsStillSwallowed) {
  EXPECT_EQ(tm->regRead("nobody"), 0xFFFFFFFF);
  EXPECT_EQ(traces.texts().at(1), "TransportMethod exception caught, Notifying agent: ");
}

TEST_F(Access, EveryOtherExceptionPasses) {
  const auto error = tm->errorNotifierIs("chip0");
  memory->faultIs("status", [] { Orb::throwRangeException("too far"); });
  EXPECT_THROW(tm->regRead("status"), Orb::RangeException);
  EXPECT_THROW(tm->regReadWithCallback("status", [](auto...) {}), Orb::RangeException);
  EXPECT_THROW(tryPerformIO(tm.get(), "status", {}), std::bad_function_call);
  EXPECT_FALSE(error->error());
  EXPECT_THAT(traces.texts(), IsEmpty());
}

TEST_F(Access, ACallbackIsToldOfAFailureAndNobodyElse) {
  const auto error = tm->errorNotifierIs("chip0");
  std::vector<std::string> calls;
  const RegReadCallback onRead = [&](const char* name, RegCallbackStatus status, uint32_t value) {
    calls.push_back(fmt::format("{} {} {:#x}", name, static_cast<int>(status), value));
  };
  const RegWriteCallback onWrite = [&](const char* name, RegCallbackStatus status) {
    calls.push_back(fmt::format("{} {}", name, static_cast<int>(status)));
  };
  failWith<GenericSigbusHandler::SigbusException>("status");
  tm->regWriteWithCallback("control", 9, onWrite);
  tm->regReadWithCallback("control", onRead);
  tm->regReadWithCallback("status", onRead);
  tm->regWriteWithCallback("nobody", 9, onWrite);
  EXPECT_THAT(calls, ElementsAre("control 1", "control 1 0x9", "status 2 0xffffffff", "nobody 2"));
  tm->regWriteWithCallback("nobody", 9, {});
  tm->regReadWithCallback("nobody", {});
  EXPECT_THAT(traces.texts(), IsEmpty());
  EXPECT_FALSE(error->error());
}

TEST_F(Access, ACallbackThatThrowsARuntimeErrorIsCalledAgainAsFailed) {
  std::vector<RegCallbackStatus> statuses;
  tm->regReadWithCallback("control", [&](const char*, RegCallbackStatus status, uint32_t) {
    statuses.push_back(status);
    if (status == RegCallbackStatus::done) throw std::runtime_error("no");
  });
  EXPECT_THAT(statuses, ElementsAre(RegCallbackStatus::done, RegCallbackStatus::failed));
}

TEST_F(Access, ACallbackMayDropTheTransportAndTheNameBeforeItThrows) {
  auto owned = transportMethodFactory("chip1");
  owned->implPtrIs(std::make_unique<Testing::MemoryTransport>(csv.path()));
  auto name = std::make_unique<Orb::String>("control");
  std::vector<std::string> names;
  owned.get()->regWriteWithCallback(*name, 1, [&](const char* regName, RegCallbackStatus) {
    names.push_back(regName);
    owned.reset();
    name.reset();
    if (names.size() == 1) throw std::runtime_error("no");
  });
  EXPECT_THAT(names, ElementsAre("control", "control"));
}

TEST_F(Access, CountsReadsWritesAndFailures) {
  tm->regRead("status");
  tm->regRead("nobody");
  tm->regWrite("control", 1);
  tm->regWriteWithCallback("nobody", 1, {});
  EXPECT_EQ(count("regRead"), 2u);
  EXPECT_EQ(count("regWrite"), 2u);
  EXPECT_EQ(count("regFail"), 2u);
}

TEST_F(Access, TheNotifierOfAChipNameStays) {
  const auto first = tm->errorNotifierIs("chip0");
  first->errorIs(true);
  EXPECT_EQ(tm->errorNotifierIs("chip0"), first);
  EXPECT_TRUE(first->error());
  const auto second = tm->errorNotifierIs("chip1");
  EXPECT_NE(second, first);
  EXPECT_FALSE(second->error());
  tm->errorNotifierDel();
  EXPECT_EQ(tm->errorNotifier(), nullptr);
}

TEST(TransportMethodRegFileValue, ComparesAndSurvivesItsStringForm) {
  const auto model = Hardware::KoruRegFile::hardwareRegisterFileFactory("a model");
  const TransportMethodRegFile value("/maps/a'b.csv", model);
  const std::string strep = Orb::valueToStrep(value);
  EXPECT_EQ(
      strep,
      R"(Value('KoruRegFile::TransportMethodRegFile', ** {'csvPath': '/maps/a\'b.csv', )"
      R"('regFileModel': Entity('Hardware::KoruRegFile::HardwareRegisterFile', 'a model')}))");
  EXPECT_EQ(Orb::strepToValue<TransportMethodRegFile>(strep), value);
  EXPECT_NE(value, TransportMethodRegFile("/maps/a'b.csv", nullptr));
  EXPECT_FALSE(TransportMethodRegFile());
}

// A descriptor that is not of the class which its triple stands for gets no implementation.
TEST(TransportFactory, ADescriptorOfAnotherClassIsRefused) {
  using enum TransportFlavour;
  const struct {
    TransportType type;
    TransportProtocol protocol;
    TransportFlavour flavour;
    const char* message;
  } cases[] = {
      {TransportType::pci, TransportProtocol::mockProtocol, mockFlavour,
       "Unknown transport type 'pci'"},
      {TransportType::pci, TransportProtocol::DirectAccess, PciPax, nullptr},
      {TransportType::i2c, TransportProtocol::I2cRelay, I2cSmbusRelay, nullptr},
      {TransportType::i2c, TransportProtocol::I2cSmbusIoctl, I2cSmbusDataBlock, nullptr},
      {TransportType::i2c, TransportProtocol::I2cSmbusIoctl, I2cSmbusDataWord, nullptr},
      {TransportType::spi, TransportProtocol::SpiAccellerator, SpiPax, nullptr},
  };
  const Testing::TempFile csv(map);
  const auto tm = transportMethodFactory("chip0");
  for (const auto& [type, protocol, flavour, message] : cases) {
    const auto odd = Orb::make<OddDescriptor>(type, protocol, flavour);
    EXPECT_EQ(failure([&] { tm->init(odd, csv.path()); }),
              message ? message : "TransportMethod implementation init failed");
    EXPECT_EQ(tm->implPtr(), nullptr);
  }
}

}  // namespace
