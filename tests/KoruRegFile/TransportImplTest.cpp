// The base of every transport and the mock transport. The mock's value file is the machine's: the
// test program puts it aside, and its tests never run beside each other.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "testing/MemoryTransport.h"
#include "testing/MockValueFile.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::MockTransportMethodImpl;
using KoruRegFile::RegCallbackStatus;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "2,b,cfg,true,32\n"
    "1,a,cfg,true,32\n"
    "0,z,sts,false,16\n";

class BaseTransport : public testing::Test {
 protected:
  const Testing::TempFile csv{map};
  Testing::MemoryTransport transport{csv.path()};
  std::vector<std::string> calls;
  KoruRegFile::RegReadCallback onRead = [this](const char* name, RegCallbackStatus status,
                                               uint32_t value) {
    calls.push_back(fmt::format("{} {} {:#x}", name, static_cast<int>(status), value));
  };
  KoruRegFile::RegWriteCallback onWrite = [this](const char* name, RegCallbackStatus status) {
    calls.push_back(fmt::format("{} {}", name, static_cast<int>(status)));
  };
};

TEST_F(BaseTransport, CallsBackAfterTheAccess) {
  transport.regWriteWithCallback("a", 0x1f, onWrite);
  transport.regReadWithCallback("a", onRead);
  EXPECT_THAT(transport.ledger(), ElementsAre("write a 31", "read a 31"));
  EXPECT_THAT(calls, ElementsAre("a 1", "a 1 0x1f"));
}

TEST_F(BaseTransport, WithoutACallbackOnlyAWriteIsMade) {
  transport.regReadWithCallback("a", {});
  transport.regReadWithCallback("nobody", {});
  transport.regWriteWithCallback("a", 5, {});
  EXPECT_THAT(transport.ledger(), ElementsAre("write a 5"));
}

TEST_F(BaseTransport, AFailedAccessThrowsAndDoesNotCallBack) {
  EXPECT_THROW(transport.regReadWithCallback("nobody", onRead), std::runtime_error);
  EXPECT_THROW(transport.regWriteWithCallback("nobody", 1, onWrite), std::runtime_error);
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BaseTransport, DumpsEveryRegisterInMapOrder) {
  transport.regWrite("a", 0x1f);
  testing::internal::CaptureStderr();
  transport.dumpAll();
  const std::string blanks(39, ' ');
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "b" + blanks + " 0x0\na" + blanks + " 0x1f\nz" + blanks + " 0x0\n");
}

class MockTransport : public testing::Test {
 protected:
  MockTransportMethodImpl make() { return {csv.path(), nullptr}; }

  const Testing::TempFile csv{map};
  const Testing::MockValueFile valueFile;
};

TEST_F(MockTransport, KeepsValuesAndWritesThemAllBackInAddressOrder) {
  auto transport = make();
  transport.regWrite("b", 4294967295);
  EXPECT_EQ(transport.regRead("a"), 0u);
  EXPECT_EQ(transport.regRead("b"), 4294967295u);
  EXPECT_EQ(valueFile.content(), "Address, Value\n4,0\n8,4294967295\n");
  transport.regWrite("b", 5);
  EXPECT_EQ(valueFile.content(), "Address, Value\n4,0\n8,5\n");
}

TEST_F(MockTransport, RefusesUnknownRegistersAndTouchesNothing) {
  auto transport = make();
  EXPECT_THROW(transport.regWrite("nobody", 1), std::runtime_error);
  EXPECT_FALSE(valueFile.exists());
}

struct Seed {
  const char* text;
  uint32_t a;
};

class MockSeed : public MockTransport, public testing::WithParamInterface<Seed> {};

TEST_P(MockSeed, IsReadLeniently) {
  valueFile.contentIs(GetParam().text);
  EXPECT_EQ(make().regRead("a"), GetParam().a);
}

INSTANTIATE_TEST_SUITE_P(
    Seeds, MockSeed,
    testing::Values(Seed{"", 0}, Seed{"4,7\n", 0}, Seed{"Address, Value\n4,7\n", 7},
                    Seed{"any header\n4, 7\n", 7}, Seed{"h\n\t4 ,7 apples\r\n", 7},
                    Seed{"h\nno comma here\n\n4,7\n", 7}, Seed{"h\n4,7\n4,8\n", 7},
                    Seed{"h\n4,4294967297\n", 1}, Seed{"h\n4294967300,9\n", 9}, Seed{"h\n4,7", 7}));

TEST_F(MockTransport, RefusesASeedThatIsNoNumber) {
  valueFile.contentIs("h\nfour,7\n");
  EXPECT_THROW(make(), std::invalid_argument);
  valueFile.contentIs("h\n4,\n");
  EXPECT_THROW(make(), std::invalid_argument);
  valueFile.contentIs("h\n4,99999999999999999999\n");
  EXPECT_THROW(make(), std::out_of_range);
}

TEST_F(MockTransport, FollowsNoSymbolicLink) {
  const Testing::TempFile victim("h\n4,7\n");
  std::filesystem::create_symlink(victim.path(), MockTransportMethodImpl::valueFilePath);
  auto transport = make();
  EXPECT_EQ(transport.regRead("a"), 0u);
  transport.regWrite("a", 5);
  EXPECT_EQ(transport.regRead("a"), 5u);
  std::stringstream content;
  content << std::ifstream(victim.path()).rdbuf();
  EXPECT_EQ(content.str(), "h\n4,7\n");
}

TEST_F(MockTransport, AFifoInPlaceOfTheFileNeitherBlocksNorFails) {
  ASSERT_EQ(::mkfifo(MockTransportMethodImpl::valueFilePath, 0600), 0);
  auto transport = make();
  transport.regWrite("a", 5);
  EXPECT_EQ(transport.regRead("a"), 5u);
}

TEST_F(MockTransport, NeedsAMap) {
  EXPECT_THROW(MockTransportMethodImpl("", nullptr), std::runtime_error);
  EXPECT_THROW(MockTransportMethodImpl("/nonexistent", nullptr), std::runtime_error);
}

}  // namespace
