#include <gtest/gtest.h>

#include <stdexcept>

#include "KoruRegFile/RegisterBits.h"

namespace {

using KoruRegFile::BitRange;
using KoruRegFile::parseNumber;
using KoruRegFile::RegisterBits;

TEST(RegisterBits, ReadsNamesAndRanges) {
  const auto expectParsed = [](const char* text, const char* name, BitRange range, bool hasRange) {
    const RegisterBits bits = RegisterBits::parse(text);
    EXPECT_EQ(bits.name, name) << text;
    EXPECT_EQ(bits.range, range) << text;
    EXPECT_EQ(bits.hasRange, hasRange) << text;
  };
  expectParsed("ctrl", "ctrl", {31, 0}, false);
  expectParsed("ctrl[7:4]", "ctrl", {7, 4}, true);
  expectParsed("ctrl[3]", "ctrl", {3, 3}, true);
  expectParsed("ctrl[31:0]", "ctrl", {31, 0}, true);
  expectParsed("fifo[2][1:0]", "fifo[2]", {1, 0}, true);
  expectParsed("ctrl[7", "ctrl[7", {31, 0}, false);
  for (const char* wrong : {"c[4:7]", "c[32]", "c[-1]", "c[]", "c[:]", "c[1:]", "c[a]", "c[1:2:3]",
                            "c[256]", "c[ 1]"}) {
    EXPECT_THROW(RegisterBits::parse(wrong), std::invalid_argument) << wrong;
  }
}

TEST(Numbers, AreReadInThreeBases) {
  for (const char* text : {"42", "042", "0x2A", "0b101010"}) EXPECT_EQ(parseNumber(text), 42u);
  EXPECT_EQ(parseNumber("0xffffffffffffffff"), UINT64_MAX);
  EXPECT_EQ(parseNumber("4294967295", UINT32_MAX), UINT32_MAX);
  for (const char* wrong : {"", "0x", "0b", "0b2", "-1", "+1", " 1", "1 ", "1.0", "abc", "0x1g",
                            "18446744073709551616"}) {
    EXPECT_THROW(parseNumber(wrong), std::invalid_argument) << wrong;
  }
  EXPECT_THROW(parseNumber("4294967296", UINT32_MAX), std::invalid_argument);
}

}  // namespace
