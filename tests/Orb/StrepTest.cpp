// String forms: what every kind of value prints as, that it reads back, and what is refused.

#include <gmock/gmock.h>

#include "tests/Orb/Lamp.h"

namespace {

using Home::Colour;
using Home::Ghost;
using Home::Lamp;
using Home::Place;
using Orb::String;

template <class T>
void expectRoundTrip(const T& value, const std::string& strep) {
  EXPECT_EQ(Orb::valueToStrep(value), strep);
  EXPECT_EQ(Orb::strepToValue<T>(strep), value) << strep;
}

TEST(Strep, PrintsAndReadsBackEveryKindOfValue) {
  expectRoundTrip<uint8_t>(255, "255");
  expectRoundTrip<uint16_t>(0, "0");
  expectRoundTrip<uint64_t>(UINT64_MAX, "18446744073709551615");
  expectRoundTrip(true, "True");
  expectRoundTrip(false, "False");
  expectRoundTrip(Colour::warmWhite, "warm-white");
  expectRoundTrip(Place("hall", 3), "Value('Home::Place', ** {'room': 'hall', 'shelf': 3})");
  expectRoundTrip(Place(), "Value('Home::Place', ** {'room': '', 'shelf': 0})");
}

TEST(Strep, StringsOfAllBytesSurviveTheRoundTrip) {
  expectRoundTrip(String("it's {a} \\ \"b\": 1}, "), R"('it\'s {a} \\ "b": 1}, ')");
  expectRoundTrip(String("\n\r\t"), R"('\n\r\t')");
  expectRoundTrip(String(std::string_view("\0\x1f\x7f", 3)), R"('\x00\x1f\x7f')");
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(Orb::strepToValue<String>(Orb::valueToStrep(String(all))), all);
}

template <class T>
void expectMalformed(std::initializer_list<const char*> texts) {
  for (const char* text : texts) {
    EXPECT_THROW(Orb::strepToValue<T>(text), Orb::ParseException) << text;
  }
}

TEST(Strep, RefusesWhatItWouldNotHaveWritten) {
  expectMalformed<uint8_t>({"", " 1", "1 ", "-1", "+1", "01", "00", "0x1", "1,", "True"});
  expectMalformed<bool>({"", "true", "1", "False ", "FalseTrue"});
  expectMalformed<Colour>({"", "blue", "Red", "warm", "'red'", "0"});
  expectMalformed<String>({"", "a", "'a", "a'", "'a'b'", "\"a\"", "'\n'", "'\\'", "'\\q'", "'\\x1'",
                           "'\\x1G'", "'\\x41'", "'\\x0a'", "'\\x1F'", "'a' "});
  expectMalformed<Place>({
      "",
      "Value('Home::Place', ** {'room': 'hall', 'shelf': 3}",
      "Value('Home::Place', ** {'room': 'hall', 'shelf': 3}) ",
      "Value('Home::Places', ** {'room': 'hall', 'shelf': 3})",
      "Value('Home::Place', ** {'room': 'hall','shelf': 3})",
      "Value('Home::Place', ** {'shelf': 3, 'room': 'hall'})",
      "Value('Home::Place', ** {'room': 'hall'})",
      "Value('Home::Place', ** {'room': 'hall', 'shelf': 3, })",
      "Value('Home::Place', **{'room': 'hall', 'shelf': 3})",
      "Value('Home::Place', ** {'room': None, 'shelf': 3})",
  });
}

TEST(Strep, NumbersOutsideTheirTypeAreRangeErrorsNotParseErrors) {
  EXPECT_THROW(Orb::strepToValue<uint8_t>("256"), Orb::RangeException);
  EXPECT_THROW(Orb::strepToValue<uint64_t>("18446744073709551616"), Orb::RangeException);
  EXPECT_THROW(Orb::strepToValue<Place>("Value('Home::Place', ** {'room': '', 'shelf': 10})"),
               Orb::RangeException);
}

TEST(Strep, AParseErrorNamesThePlace) {
  EXPECT_THAT([] { Orb::strepToValue<Place>("Value('Home::Place', ** {'room': 7"); },
              testing::ThrowsMessage<Orb::ParseException>(
                  "expected ' at byte 33 of Value('Home::Place', ** {'room': 7"));
}

TEST(Strep, EntityPointersAreFoundAgainWhileTheyLiveAndAreUnambiguous) {
  const auto lamp = Orb::make<Lamp>("it's mine");
  const std::string strep = R"(Entity('Home::Lamp', 'it\'s mine'))";
  expectRoundTrip(lamp, strep);
  expectRoundTrip(Orb::Ptr<Lamp>(), "None");
  auto twin = Orb::make<Lamp>("it's mine");
  EXPECT_THROW(Orb::strepToValue<Orb::Ptr<Lamp>>(strep), Orb::ParseException);
  twin.reset();
  EXPECT_EQ(Orb::strepToValue<Orb::Ptr<Lamp>>(strep), lamp);
  expectMalformed<Orb::Ptr<Lamp>>({"Entity('Home::Lamp', 'nobody')", "Entity('Home::Lamp')",
                                   "Entity('Home::Sofa', 'it\\'s mine')", "none", ""});
}

TEST(Value, AHashIsThereOrRefused) {
  EXPECT_EQ(Orb::valueHash(Place("a", 1)), Place("a", 1).hash());
  EXPECT_NE(Orb::valueHash(Place("a", 1)), Orb::valueHash(Place("a", 2)));
  EXPECT_THROW(Orb::valueHash(Ghost()), Orb::UnhashableTypeException);
}

TEST(Enum, RefusesNamesAndNumbersOutsideTheTable) {
  EXPECT_EQ(Orb::enumFromNumber<Colour>(3), Colour::warmWhite);
  EXPECT_THROW(Orb::enumFromNumber<Colour>(1), Orb::RangeException);
  EXPECT_THROW(Orb::enumFromNumber<Colour>(256), Orb::RangeException);
  EXPECT_EQ(Orb::enumFromName<Colour>("red"), Colour::red);
  EXPECT_THROW(Orb::enumFromName<Colour>("warmWhite"), Orb::RangeException);
  EXPECT_THROW(Orb::enumName(static_cast<Colour>(1)), Orb::RangeException);
}

}  // namespace
