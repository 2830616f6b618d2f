// Requests that need no parser are understood as the parser understands them.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "board/service/JsonText.h"

namespace {

using nlohmann::ordered_json;

// Whether it was understood; it has to mean the same then.
bool isPlain(const std::string& text) {
  const auto found = Board::plainObject(text);
  if (!found) return false;
  const auto parsed = ordered_json::parse(text, nullptr, false);
  EXPECT_FALSE(parsed.is_discarded()) << text;
  EXPECT_EQ(found->dump(), parsed.dump());
  for (const auto& [key, value] : parsed.items()) EXPECT_EQ(value.type(), (*found)[key].type());
  return true;
}

TEST(PlainObject, IsWhatMostRequestsAre) {
  const std::pair<std::string, bool> table[] = {
      {R"({"id":1,"op":"field.write","chip":"c","register":"r","field":"f","value":18})", true},
      {R"( { "live" : true , "a":false,"b":null,"c":"" } )", true},
      {"{}", true},
      {R"({"value":0})", true},
      {R"({"value":9999999999999999999})", true},
      {R"({"value":18446744073709551615})", false},
      {R"({"value":00})", false},
      {R"({"value":-1})", false},
      {R"({"value":1.5})", false},
      {R"({"value":1e3})", false},
      {R"({"value":})", false},
      {R"({"a":"\n"})", false},
      {R"({"a":"°"})", false},
      {"{\"a\":\"\t\"}", false},
      {R"({"a":1,"a":2})", false},
      {R"({"a":1,})", false},
      {R"({"a":1}})", false},
      {R"({"a":[1]})", false},
      {R"({"a":truer})", false},
      {R"({"a")", false},
      {R"({"a":"b)", false},
      {R"({"a":tr)", false},
      {"[]", false},
      {"", false},
  };
  for (const auto& [text, plain] : table) EXPECT_EQ(isPlain(text), plain) << text;
}

TEST(PlainObject, IsNothingThatTheParserRefuses) {
  const std::string request = R"({"id": 7, "op": "field.read", "x": true, "n": null, "chip": "c"})";
  const std::string bytes = "{}[]\":,\\0129-.e tfnu\n\x01\x80";
  std::mt19937 random(1);
  size_t plain = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text = request;
    for (size_t changes = 1 + random() % 2; changes > 0; --changes) {
      text[random() % text.size()] = bytes[random() % bytes.size()];
      if (random() % 4 == 0) text.erase(random() % text.size(), 1);
    }
    plain += isPlain(text) ? 1 : 0;
  }
  EXPECT_GT(plain, 1000u);
}

}  // namespace
