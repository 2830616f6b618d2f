#include <gtest/gtest.h>

#include <stdexcept>

#include "Orb/String.h"

namespace {

using Orb::String;

TEST(OrbString, KeepsAnyTextAndSharesItWhenCopied) {
  const std::string text("a\0b", 3);
  const String original(text);
  const String copy = original;
  EXPECT_EQ(copy.view(), text);
  EXPECT_EQ(copy.c_str(), original.c_str());
  EXPECT_EQ(copy.c_str()[3], '\0');
}

TEST(OrbString, RefusesANullPointer) {
  const char* null = nullptr;
  EXPECT_THROW(String{null}, std::logic_error);
}

}  // namespace
