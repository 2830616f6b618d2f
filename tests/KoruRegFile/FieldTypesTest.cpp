// The names and descriptions of logical and physical registers and fields, and the shadow entries.

#include <gmock/gmock.h>

#include <sstream>

#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "Orb/EntityType.h"
#include "Orb/Hash.h"

namespace {

using namespace KoruRegFile;
using Orb::String;

template <class T>
std::string refusal(T make) {
  try {
    make();
  } catch (const Orb::RangeException& e) {
    return e.what();
  }
  return "(accepted)";
}

template <class T>
class Names : public testing::Test {};
struct LogicalNames {
  using Register = LogicalRegisterName;
  using Field = LogicalFieldName;
};
struct PhysicalNames {
  using Register = PhysicalRegisterName;
  using Field = PhysicalFieldName;
};
using BothKinds = testing::Types<LogicalNames, PhysicalNames>;
TYPED_TEST_SUITE(Names, BothKinds);

TYPED_TEST(Names, DeriveTheirFullNames) {
  using Register = typename TypeParam::Register;
  using Field = typename TypeParam::Field;
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

TYPED_TEST(Names, AreEqualOnlyIfAllPartsAre) {
  using Register = typename TypeParam::Register;
  using Field = typename TypeParam::Field;
  const Register one("a-b", "c"), other("a", "b-c");
  EXPECT_EQ(one.fullName(), other.fullName());
  EXPECT_EQ(one.hash(), other.hash());
  EXPECT_NE(one, other);
  EXPECT_LT(other, one);
  EXPECT_NE(Field(one, "f"), Field(other, "f"));
  EXPECT_LT(Field(one, "e"), Field(one, "f"));
  EXPECT_EQ(Orb::valueHash(Field(one, "f")), std::hash<String>()("a-b-c-f"));
}

TYPED_TEST(Names, RoundTripWhateverTheyHold) {
  using Register = typename TypeParam::Register;
  using Field = typename TypeParam::Field;
  for (const char* text : {"", "plain", "it's", "a\\b", "{'}), ", "two\nlines", "\x01\x7f", "-"}) {
    const Field field(Register(text, text), text);
    EXPECT_EQ(Orb::strepToValue<Field>(Orb::valueToStrep(field)), field) << text;
  }
}

TYPED_TEST(Names, RefuseAFullNameThatDoesNotFollow) {
  const std::string type = TypeParam::Register::typeName;
  const auto read = [&](const char* fullName) {
    return Orb::strepToValue<typename TypeParam::Register>(
        "Value('" + type + "', ** {'chipName': 'a', 'name': 'b', 'fullName': '" + fullName + "'})");
  };
  EXPECT_EQ(read("a-b").fullName(), "a-b");
  EXPECT_THROW(read("a-c"), Orb::ParseException);
  EXPECT_THROW(read(""), Orb::ParseException);
}

TEST(FieldTypes, CheckStartBeforeSize) {
  const LogicalFieldName lName(LogicalRegisterName("c", "r"), "f");
  const PhysicalFieldName pName(PhysicalRegisterName("c", "r"), "f");
  const auto logical = [&](uint8_t start, uint8_t size) {
    return refusal([&] { LogicalField(lName, start, size, 0); });
  };
  const auto physical = [&](uint8_t start, uint8_t size) {
    return refusal([&] { PhysicalField(pName, start, size); });
  };
  const auto key = [](uint8_t start, uint8_t size) {
    return refusal([&] { ShadowFieldKey(0, start, size); });
  };
  EXPECT_EQ(logical(63, 32), "(accepted)");
  EXPECT_EQ(logical(64, 0), "KoruRegFile::LogicalField::start < 0 or > 63 not allowed");
  EXPECT_EQ(logical(0, 0), "KoruRegFile::LogicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(logical(0, 33), "KoruRegFile::LogicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(physical(31, 32), "(accepted)");
  EXPECT_EQ(physical(32, 0), "KoruRegFile::PhysicalField::start < 0 or > 31 not allowed");
  EXPECT_EQ(physical(0, 33), "KoruRegFile::PhysicalField::size < 1 or > 32 not allowed");
  EXPECT_EQ(key(31, 32), "(accepted)");
  EXPECT_EQ(key(32, 1), "KoruRegFile::ShadowFieldKey::start < 0 or > 31 not allowed");
  EXPECT_EQ(key(0, 0), "KoruRegFile::ShadowFieldKey::size < 1 or > 32 not allowed");
}

TEST(FieldTypes, PrintAndReadBack) {
  const LogicalField logical({LogicalRegisterName("c", "r"), "f"}, 8, 4, 31);
  const std::string strep =
      "Value('KoruRegFile::LogicalField', ** {'name': Value('KoruRegFile::LogicalFieldName', ** "
      "{'regName': Value('KoruRegFile::LogicalRegisterName', ** {'chipName': 'c', 'name': 'r', "
      "'fullName': 'c-r'}), 'name': 'f', 'fullName': 'c-r-f'}), 'start': 8, 'size': 4, 'value': "
      "31})";
  EXPECT_EQ(Orb::valueToStrep(logical), strep);
  EXPECT_EQ(Orb::strepToValue<LogicalField>(strep), logical);
  std::ostringstream out;
  out << logical;
  EXPECT_EQ(out.str(), strep);

  PhysicalField physical({PhysicalRegisterName("c", "R"), "F"}, 1, 2);
  EXPECT_EQ(physical.key(), ShadowFieldKey());
  physical.keyIs({7, 1, 2});
  EXPECT_EQ(Orb::strepToValue<PhysicalField>(Orb::valueToStrep(physical)), physical);
  EXPECT_EQ(
      Orb::valueToStrep(ShadowFieldValue({7, 1, 2}, UINT32_MAX)),
      "Value('KoruRegFile::ShadowFieldValue', ** {'key': Value('KoruRegFile::ShadowFieldKey', "
      "** {'address': 7, 'start': 1, 'size': 2}), 'value': 4294967295})");
  EXPECT_EQ(Orb::strepToValue<LogicalField>(Orb::valueToStrep(LogicalField())), LogicalField());
  EXPECT_EQ(Orb::strepToValue<PhysicalField>(Orb::valueToStrep(PhysicalField())), PhysicalField());
  EXPECT_EQ(Orb::strepToValue<ShadowFieldValue>(Orb::valueToStrep(ShadowFieldValue())),
            ShadowFieldValue());
}

TEST(FieldTypes, RefuseMalformedForms) {
  const auto refused = [](const char* attributes) {
    const std::string strep =
        std::string("Value('KoruRegFile::ShadowFieldKey', ** {") + attributes + "})";
    EXPECT_THROW(Orb::strepToValue<ShadowFieldKey>(strep), std::logic_error) << strep;
  };
  for (const char* attributes :
       {"", "'address': 1, 'start': 2", "'start': 2, 'address': 1, 'size': 3",
        "'address': 1, 'start': 32, 'size': 3", "'address': 1, 'start': 2, 'size': 0",
        "'address': 4294967296, 'start': 2, 'size': 3", "'address': -1, 'start': 2, 'size': 3",
        "'address': 1,  'start': 2, 'size': 3", "'address': 0x1, 'start': 2, 'size': 3",
        "'address': 1, 'start': 256, 'size': 3", "'address': 1, 'start': 2, 'size': 3, 'x': 4"}) {
    refused(attributes);
  }
}

TEST(ShadowFieldKeys, CompareAndHashByAllParts) {
  EXPECT_LT(ShadowFieldKey(5, 0, 8), ShadowFieldKey(5, 1, 1));
  EXPECT_LT(ShadowFieldKey(5, 1, 1), ShadowFieldKey(5, 1, 2));
  EXPECT_NE(ShadowFieldKey(5, 1, 1), ShadowFieldKey(5, 1, 2));
  EXPECT_NE(ShadowFieldKey(5, 1, 1).hash(), ShadowFieldKey(5, 1, 2).hash());
  EXPECT_NE(ShadowFieldKey(5, 1, 1).hash(1), ShadowFieldKey(5, 1, 1).hash(2));
  EXPECT_FALSE(ShadowFieldKey(0, 0, 1));
  EXPECT_THROW(Orb::valueHash(ShadowFieldValue()), Orb::UnhashableTypeException);
  EXPECT_THROW(Orb::valueHash(LogicalField()), Orb::UnhashableTypeException);
  EXPECT_THROW(Orb::valueHash(LogicalRegister()), Orb::UnhashableTypeException);
}

TEST(LogicalRegisters, HoldASetOfFieldsWhoseOrderDoesNotMatter) {
  const LogicalRegisterName name("c", "r");
  const LogicalFieldName f(name, "f"), g(name, "g");
  LogicalRegister one(name), other(name);
  one.fieldIs(f, true);
  one.fieldIs(g, true);
  other.fieldIs(g, true);
  EXPECT_NE(one, other);
  other.fieldIs(f, true);
  EXPECT_EQ(one, other);
  LogicalRegister copy = one;
  copy.fieldDel(f);
  EXPECT_TRUE(one.fieldHas(f));
  EXPECT_FALSE(copy.fieldHas(f));
  copy.fieldDelAll();
  EXPECT_TRUE(copy.field().empty());
  EXPECT_FALSE(LogicalRegister());
  copy.valueIs(UINT64_MAX);
  EXPECT_EQ(Orb::valueToStrep(copy),
            "Value('KoruRegFile::LogicalRegister', ** {'name': Value('KoruRegFile::"
            "LogicalRegisterName', ** {'chipName': 'c', 'name': 'r', 'fullName': 'c-r'}), 'field': "
            "None, 'value': 18446744073709551615})");
}

TEST(LogicalRegistersDeathTest, CannotBeReadFromAString) {
  EXPECT_DEATH(Orb::strepToValue<LogicalRegister>(Orb::valueToStrep(LogicalRegister())),
               "No String constructor for LogicalRegister - has collection");
}

}  // namespace
