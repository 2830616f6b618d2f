// The names and descriptions of logical and physical registers and fields, and the shadow entries.

#include <gmock/gmock.h>

#include <sstream>

#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "KoruRegFile/SystemStatus.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/EntityType.h"
#include "Orb/Hash.h"
#include "testing/Expect.h"

namespace {

using namespace KoruRegFile;
using Orb::String;
using Testing::failure;

// The physical names are made of the same parts.
using Register = LogicalRegisterName;
using Field = LogicalFieldName;

TEST(Names, DeriveTheirFullNames) {
  EXPECT_EQ(Register("chip0", "ctrl").fullName(), "chip0-ctrl");
  EXPECT_EQ(Field(Register("chip0", "ctrl"), "en").fullName(), "chip0-ctrl-en");
  EXPECT_EQ(Register("", "r").fullName(), "-r");
  EXPECT_EQ(Register().fullName(), "-");
  EXPECT_EQ(Field().fullName(), "--");
  EXPECT_FALSE(Register());
  EXPECT_FALSE(Register("", ""));
  EXPECT_FALSE(Field(Register(), ""));
  EXPECT_TRUE(Field(Register(), "f"));
}

TEST(Names, AreEqualOnlyIfAllPartsAre) {
  const Register one("a-b", "c"), other("a", "b-c");
  EXPECT_EQ(one.fullName(), other.fullName());
  EXPECT_EQ(one.hash(), other.hash());
  EXPECT_NE(one, other);
  EXPECT_LT(other, one);
  EXPECT_NE(Field(one, "f"), Field(other, "f"));
  EXPECT_LT(Field(one, "e"), Field(one, "f"));
  EXPECT_EQ(Orb::valueHash(Field(one, "f")), std::hash<String>()("a-b-c-f"));
}

TEST(Names, RefuseAFullNameThatDoesNotFollow) {
  const std::string type = PhysicalRegisterName::typeName;
  const auto read = [&](const char* fullName) {
    return Orb::strepToValue<PhysicalRegisterName>(
        "Value('" + type + "', ** {'chipName': 'a', 'name': 'b', 'fullName': '" + fullName + "'})");
  };
  EXPECT_EQ(read("a-b"), PhysicalRegisterName("a", "b"));
  EXPECT_THROW(read("a-c"), Orb::ParseException);
  EXPECT_THROW(read(""), Orb::ParseException);
}

TEST(FieldTypes, CheckStartBeforeSize) {
  const auto logical = [](uint8_t start, uint8_t size) {
    return failure<Orb::RangeException>([&] { LogicalField({}, start, size, 0); });
  };
  const auto physical = [](uint8_t start, uint8_t size) {
    return failure<Orb::RangeException>([&] { PhysicalField({}, start, size); });
  };
  const auto key = [](uint8_t start, uint8_t size) {
    return failure<Orb::RangeException>([&] { ShadowFieldKey(0, start, size); });
  };
  const std::string accepted = "(nothing was thrown)";
  EXPECT_EQ(logical(63, 32), accepted);
  EXPECT_EQ(logical(64, 0), "KoruRegFile::LogicalField::start < 0 or > 63 not allowed");
  EXPECT_EQ(logical(0, 0), "KoruRegFile::LogicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(logical(0, 33), "KoruRegFile::LogicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(physical(31, 32), accepted);
  EXPECT_EQ(physical(32, 0), "KoruRegFile::PhysicalField::start < 0 or > 31 not allowed");
  EXPECT_EQ(physical(0, 33), "KoruRegFile::PhysicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(key(31, 32), accepted);
  EXPECT_EQ(key(32, 1), "KoruRegFile::ShadowFieldKey::start < 0 or > 31 not allowed");
  EXPECT_EQ(key(0, 0), "KoruRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
}

// Forms without what all of them have around their attributes: Value('TYPE', ** {...}).
template <class T>
void expectForm(const T& value, const std::string& type, const std::string& attributes) {
  const std::string form = "Value('" + type + "', ** {" + attributes + "})";
  EXPECT_EQ(Orb::valueToStrep(value), form);
  EXPECT_EQ(Orb::strepToValue<T>(form), value);
  EXPECT_EQ(Orb::strepToValue<T>(Orb::valueToStrep(T())), T());
  std::ostringstream out;
  out << value;
  EXPECT_EQ(out.str(), form);
}

TEST(ValueTypes, PrintAndReadBack) {
  PhysicalField physical({PhysicalRegisterName("c", "R"), "F"}, 1, 2);
  EXPECT_EQ(physical.key(), ShadowFieldKey());
  physical.keyIs({7, 1, 2});
  expectForm(
      physical, "KoruRegFile::PhysicalField",
      "'name': Value('KoruRegFile::PhysicalFieldName', ** {'regName': "
      "Value('KoruRegFile::PhysicalRegisterName', ** {'chipName': 'c', 'name': 'R', "
      "'fullName': 'c-R'}), 'name': 'F', 'fullName': 'c-R-F'}), 'start': 1, 'size': 2, "
      "'key': Value('KoruRegFile::ShadowFieldKey', ** {'address': 7, 'start': 1, 'size': 2})");
  expectForm(ShadowFieldValue({7, 1, 2}, UINT32_MAX), "KoruRegFile::ShadowFieldValue",
             "'key': Value('KoruRegFile::ShadowFieldKey', ** {'address': 7, 'start': 1, "
             "'size': 2}), 'value': 4294967295");
  expectForm(PossibleProfile("p", {1, 2}), "KoruRegFile::PossibleProfile",
             "'profileName': 'p', 'hwApi': Value('KoruRegFile::PossibleHwApi', ** {'major': 1, "
             "'minor': 2})");
  expectForm(MountConstants(), "KoruRegFile::MountConstants", "");
  const auto model = Hardware::KoruRegFile::hardwareRegisterFileFactory("a model");
  expectForm(TransportMethodRegFile("/maps/a'b.csv", model), "KoruRegFile::TransportMethodRegFile",
             R"('csvPath': '/maps/a\'b.csv', 'regFileModel': )"
             "Entity('Hardware::KoruRegFile::HardwareRegisterFile', 'a model')");
}

TEST(LogicalRegisters, AreEqualWhateverTheOrderOfTheirFields) {
  const Register name("c", "r");
  const Field f(name, "f"), g(name, "g");
  LogicalRegister one(name), other(name);
  for (const Field& field : {f, g}) one.fieldIs(field, true);
  for (const Field& field : {g, f}) {
    EXPECT_NE(one, other);
    other.fieldIs(field, true);
  }
  EXPECT_EQ(one, other);
}

TEST(LogicalRegistersDeathTest, CannotBeReadFromAString) {
  EXPECT_DEATH(Orb::strepToValue<LogicalRegister>(Orb::valueToStrep(LogicalRegister())),
               "No String constructor for LogicalRegister - has collection");
}

}  // namespace
