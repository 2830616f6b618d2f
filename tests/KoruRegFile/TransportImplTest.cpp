// The base of every transport and the mock transport. The mock's value file is the machine's: the
// test program puts it aside, and its tests never run beside each other.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "Orb/Descriptor.h"
#include "testing/MemoryTransport.h"
#include "testing/MockValueFile.h"
#include "testing/TempFile.h"

namespace {

using KoruRegFile::MockTransportMethodImpl;

constexpr const char* map =
    "number,name,type,writeable,width\n"
    "2,b,cfg,true,32\n"
    "1,a,cfg,true,32\n"
    "0,z,sts,false,16\n";

TEST(BaseTransport, DumpsEveryRegisterInMapOrder) {
  Testing::MemoryTransport transport(Testing::TempFile(map).path());
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

TEST_F(MockTransport, ReadsItsSeedLeniently) {
  const std::pair<const char*, uint32_t> seeds[] = {{"", 0},
                                                    {"4,7\n", 0},
                                                    {"Address, Value\n4,7\n", 7},
                                                    {"any header\n4, 7\n", 7},
                                                    {"h\n\t4 ,7 apples\r\n", 7},
                                                    {"h\nno comma here\n\n4,7\n", 7},
                                                    {"h\n4,7\n4,8\n", 7},
                                                    {"h\n4,4294967297\n", 1},
                                                    {"h\n4294967300,9\n", 9},
                                                    {"h\n4,7", 7}};
  for (const auto& [text, value] : seeds) {
    valueFile.contentIs(text);
    EXPECT_EQ(make().regRead("a"), value) << text;
  }
}

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
  EXPECT_EQ(valueFile.content(), "h\n4,7\n") << "behind the link";
}

TEST_F(MockTransport, AFifoInPlaceOfTheFileNeitherBlocksNorFails) {
  ASSERT_EQ(::mkfifo(MockTransportMethodImpl::valueFilePath, 0600), 0);
  const Orb::Descriptor both(::open(MockTransportMethodImpl::valueFilePath, O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::write(both.get(), "h\n4,7\n", 6), 6);
  auto transport = make();
  EXPECT_EQ(transport.regRead("a"), 0u);
  transport.regWrite("a", 5);
  EXPECT_EQ(transport.regRead("a"), 5u);
}

}  // namespace
