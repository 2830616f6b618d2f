#include <gmock/gmock.h>

#include "KoruRegFile/RegisterFileHelper.h"
#include "Orb/EntityType.h"
#include "testing/Expect.h"
#include "testing/TempFile.h"

namespace {

using Hardware::KoruRegFile::HardwareRegister;
using Hardware::KoruRegFile::HardwareRegisterFile;
using Hardware::KoruRegFile::HardwareRegisterType;
using KoruRegFile::RegFileHelper;
using testing::ElementsAre;
using Testing::failure;

std::vector<std::string> names(const RegFileHelper& helper) {
  std::vector<std::string> all;
  const auto list = helper.regList();
  for (const auto& [name, listed] : list->registerName()) all.emplace_back(name);
  return all;
}

class RegFileHelperTest : public testing::Test {
 protected:
  RegFileHelperTest() {
    model->regIs({"gain", HardwareRegisterType::cfg, true, 0x20, 12, 16});
    model->regIs({"id", HardwareRegisterType::constant, false, 0x10, 8, 8});
    model->regIs({"alias", HardwareRegisterType::sts, false, 0x20, 12, 16});
  }

  const Testing::TempFile csv{
      "number,name,type,writeable,width\n"
      "2,status,sts,false,16\n"
      "1,control,ctl,true,32\n"
      "3,odd,what,true,8\n"};
  const Orb::Ptr<HardwareRegisterFile> model =
      Hardware::KoruRegFile::hardwareRegisterFileFactory("model");
  const Orb::Ptr<RegFileHelper> helper = KoruRegFile::regFileHelperFactory("helper");
};

TEST_F(RegFileHelperTest, AnswersFromAFileInHardwareTerms) {
  helper->init(csv.path(), 4, model);
  EXPECT_EQ(helper->regFileModel(), nullptr) << "the file wins";
  EXPECT_EQ(helper->findRegisterByName("status"),
            HardwareRegister("status", HardwareRegisterType::sts, false, 8, 16, 32));
  EXPECT_EQ(helper->findRegisterByName("odd").type, HardwareRegisterType::unknown);
  EXPECT_EQ(helper->findRegNameByAddr(4), "control");
  EXPECT_TRUE(helper->hasRegName("odd"));
  EXPECT_FALSE(helper->hasRegName("Odd"));
  EXPECT_THAT(names(*helper), ElementsAre("status", "control", "odd"));
}

TEST_F(RegFileHelperTest, AnswersFromTheModelAsItIs) {
  helper->init("", 4, model);
  EXPECT_EQ(helper->findRegisterByName("gain"),
            HardwareRegister("gain", HardwareRegisterType::cfg, true, 0x20, 12, 16));
  EXPECT_EQ(helper->findRegNameByAddr(0x20), "gain");
  EXPECT_TRUE(helper->hasRegName("id"));
  EXPECT_THAT(names(*helper), ElementsAre("gain", "id", "alias"));
  EXPECT_EQ(failure([&] { helper->findRegNameByAddr(4000000000); }),
            "RegisterFile does not have address: 4000000000!");
  model->regDel("id");
  EXPECT_FALSE(helper->hasRegName("id"));
}

TEST_F(RegFileHelperTest, AFailedInitKeepsTheSourceADeletionDoesNot) {
  helper->init(csv.path(), 4, nullptr);
  const Testing::TempFile bad("no header\n");
  EXPECT_EQ(failure([&] { helper->init("/nonexistent", 4, nullptr); }),
            "Error opening CSV file /nonexistent");
  EXPECT_EQ(failure([&] { helper->init(bad.path(), 4, nullptr); }),
            "Encountered wrong CSV header!");
  EXPECT_EQ(failure([&] { helper->init("", 4, nullptr); }), "Must provide Csv path or OrbPtr");
  EXPECT_TRUE(helper->hasRegName("status"));
  helper->handleDeletion();
  EXPECT_FALSE(helper->hasRegName("status"));
}

}  // namespace
