// What raw values are called, and which raw value a text stands for.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "board/description/Meaning.h"

namespace {

using Board::Meaning;

Meaning scaled(double scale, double offset, bool isSigned, const char* unit) {
  Meaning meaning;
  meaning.scale = scale;
  meaning.offset = offset;
  meaning.isSigned = isSigned;
  meaning.unit = unit;
  return meaning;
}

Meaning named(std::vector<Board::NamedValue> values, Meaning meaning = {}) {
  meaning.values = std::move(values);
  return meaning;
}

const Meaning celsius = scaled(0.0625, 0, true, "°C");
const Meaning plain;
const Meaning gains = named({{"x1", 0}, {"x2", 1}, {"off", 7}});
const Meaning timeout = named({{"never", 0}}, scaled(2.5, 0, false, "ms"));
const Meaning millivolts = scaled(4, 0, false, "mV");
const Meaning humidity = scaled(0.1, -40, false, "%");
const Meaning falling = scaled(-1, 10, false, "");
const Meaning third = scaled(1.0 / 3, 0, false, "V");
const Meaning offsetOnly = scaled(1, -0.5, false, "");
const Meaning bar = scaled(1, 0, false, "bar");

TEST(Meanings, HaveTheDecimalsThatTheyNeedAndLeadBack) {
  const struct {
    const Meaning& meaning;
    uint32_t raw;
    unsigned size;
    const char* text;
  } table[] = {
      {celsius, 0x190, 12, "25.0 °C"},
      {celsius, 0x18c, 12, "24.75 °C"},
      {celsius, 0x18f, 12, "24.9375 °C"},
      {celsius, 0xfff, 12, "-0.0625 °C"},
      {celsius, 0x800, 12, "-128.0 °C"},
      {celsius, 0, 12, "0.0 °C"},
      {millivolts, 1000, 13, "4000 mV"},
      {humidity, 401, 12, "0.1 %"},  // what is left of 40.1 - 40 is 0.10000000000000142
      {humidity, 400, 12, "0.0 %"},
      {humidity, 0, 12, "-40.0 %"},
      {scaled(0.1, 0, false, ""), 3, 8, "0.3"},
      {scaled(0.7, -2.1, false, ""), 3, 8, "0.0"},  // a little below
      {falling, 0, 4, "10"},
      {falling, 15, 4, "-5"},
      {falling, 10, 4, "0"},
      {third, 1000, 12, "333.333333333333 V"},
      {third, 0xffffffff, 32, "1431655765.0 V"},
      {third, 0xfffffffe, 32, "1431655764.66667 V"},
      {offsetOnly, 0, 8, "-0.5"},
      {scaled(1, 0, true, ""), 0x80000000, 32, "-2147483648"},
      {scaled(0.000030517578125, 0, true, ""), 12345, 32, "0.376739501953125"},
      {scaled(1e-5, 0, true, "A"), 0xffff, 16, "-0.00001 A"},
      {scaled(1e-20, 0, false, "A"), 3, 8, "3e-20 A"},
      {scaled(1e20, 0, false, ""), 7, 8, "7e+20"},
      {gains, 1, 3, "x2"},
      {gains, 7, 3, "off"},
      {gains, 2, 3, "0x2"},
      {timeout, 0, 4, "never"},
      {timeout, 3, 4, "7.5 ms"},
      {plain, 31, 5, "0x1f"},
  };
  for (const auto& [meaning, raw, size, text] : table) {
    SCOPED_TRACE(text);
    EXPECT_EQ(meaning.textOf(raw, size), text);
    EXPECT_EQ(Board::rawValue(&meaning, text, size), raw);
    // Bits beside the field's are none of its value.
    EXPECT_EQ(meaning.textOf(static_cast<uint32_t>(raw | uint64_t{1} << size), size), text);
  }
}

TEST(Meanings, AreWrittenInOtherWaysToo) {
  const struct {
    const Meaning* meaning;
    const char* text;
    uint32_t raw;
  } table[] = {
      {&celsius, "25", 0x190},    {&celsius, "25°C", 0x190}, {&celsius, " 25.0  °C ", 0x190},
      {&celsius, "+1", 0x10},     {&celsius, "-3.5", 0xfc8}, {&celsius, "2.5e1", 0x190},
      {&celsius, "0x190", 0x190}, {&celsius, "0b11", 3},     {&celsius, "0X1f", 0x1f},
      {&bar, "0bar", 0},          {&bar, "7 bar", 7},        {&timeout, "0", 0},
      {&timeout, " never", 0},    {&timeout, "0x0", 0},      {&gains, "2", 2},
      {&gains, "0b1", 1},         {nullptr, "0xfff", 0xfff}, {&plain, "4095", 4095},
  };
  for (const auto& [meaning, text, raw] : table) {
    EXPECT_EQ(Board::rawValue(meaning, text, 12), raw) << text;
  }
}

TEST(Meanings, OfTextsThatStandForNothingSayWhatThereIs) {
  std::vector<Board::NamedValue> many;
  for (uint32_t i = 0; i < 100; ++i) many.push_back({'n' + std::to_string(i), i});
  const Meaning crowd = named(many);
  const char* const outside = "' is outside of -128.0 °C to 127.9375 °C";
  const struct {
    const Meaning* meaning;
    std::string text;
    std::string why;  // how it begins, or goes on behind the text in quotes
  } table[] = {
      {&celsius, "24.9",
       "' lies between 24.875 °C and 24.9375 °C, and the field has no number there"},
      {&celsius, "-0.01 °C",
       "' lies between -0.0625 °C and 0.0 °C, and the field has no number there"},
      {&celsius, "128", outside},
      {&celsius, "127.95", outside},
      {&celsius, "-128.01", outside},
      {&celsius, "1e300", outside},
      {&falling, "11", "' is outside of -4085 to 10"},
      {&celsius, "0x1000", "0x1000 is more than 0xfff"},
      {&celsius, "warm", "' is no number in °C"},
      {&celsius, "25 F", "' is no number in °C"},
      {&celsius, "25,0", "' is no number in °C"},
      {&celsius, "nan", "' is no number in °C"},
      {&celsius, "-inf", "' is no number in °C"},
      {&celsius, "1e999", "' is no number in °C"},
      {&celsius, "+-5", "' is no number in °C"},
      {&celsius, "-0x5", "' is no number in °C"},
      {&celsius, "", "' is no number in °C"},
      {&timeout, "always", "' is no number in ms; the names are never"},
      {&offsetOnly, "x", "' is no number"},
      {&gains, "x4", "' is no number (write 42, 0x2a or 0b101010); the names are x1, x2, off"},
      {&gains, "x", "' is no number (write 42, 0x2a or 0b101010); the names are x1, x2, off"},
      {&gains, "4096", "4096 is more than 0xfff; the names are x1, x2, off"},
      {nullptr, "-1", "' is no number (write 42, 0x2a or 0b101010)"},
      {&crowd, "4096", "4096 is more than 0xfff; the names are n0, n1, "},
  };
  for (const auto& [meaning, text, why] : table) {
    SCOPED_TRACE(text);
    try {
      ADD_FAILURE() << Board::rawValue(meaning, text, 12);
    } catch (const std::invalid_argument& e) {
      const std::string start = why.starts_with('\'') ? fmt::format("'{}{}", text, why) : why;
      EXPECT_THAT(e.what(), testing::StartsWith(start));
      const char* const end = meaning == &crowd ? ", n31 and 68 more" : "";
      EXPECT_THAT(e.what(), testing::EndsWith(end));
    }
  }
}

}  // namespace
