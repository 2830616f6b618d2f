// Strings, pointers, collections, traces, assertions and counters.

#include <gmock/gmock.h>

#include <thread>
#include <vector>

#include "Orb/Assert.h"
#include "Orb/Counter.h"
#include "Orb/Printable.h"
#include "Orb/Trace.h"
#include "testing/RecordingTraceSink.h"
#include "tests/Orb/Lamp.h"

namespace {

using Home::Lamp;
using Orb::String;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(String, KeepsAnyTextSharesItWhenCopiedAndComparesAsBytes) {
  const std::string text("a\0b", 3);
  const String original(text);
  String copy = original;
  EXPECT_EQ(copy.view(), text);
  EXPECT_EQ(copy.c_str(), original.c_str());
  EXPECT_EQ(copy.c_str()[3], '\0');
  copy = *&copy;
  EXPECT_EQ(copy, original);
  EXPECT_EQ(Orb::StringHash()("abc"), std::hash<String>()(String("abc")));
  EXPECT_THROW(String{static_cast<const char*>(nullptr)}, std::logic_error);
  EXPECT_LT(String("a\x7f"), String("a\x80"));
  EXPECT_LT(String(), String(std::string_view("\0", 1)));
  EXPECT_EQ(String(""), String());
}

TEST(ThreadSafeMode, CountsStayExactAcrossThreads) {
  Orb::threadSafeModeIs(true);
  bool deleted = false;
  auto lamp = Orb::make<Lamp>("shared", [&] { deleted = true; });
  const String text("shared text");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([lamp, text] {
      for (int n = 0; n < 20000; ++n) {
        const Orb::Ptr<Lamp> another = lamp;
        const String copy = text;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(lamp->referenceCount(), 1u);
  lamp.reset();
  EXPECT_TRUE(deleted);
  Orb::threadSafeModeIs(false);
}

TEST(Collection, IteratesInInsertionOrderAndToleratesChangesOnTheWay) {
  Orb::Collection<String, uint32_t> collection;
  for (const char* key : {"c", "a", "b"}) collection.is(key, 1);
  collection.is("a", 2);
  std::vector<std::string> seen;
  for (const auto& [key, value] : collection) {
    seen.push_back(std::string(key) + std::to_string(value));
    if (key == "c") {
      collection.del("a");
      collection.is("d", 4);
    }
  }
  EXPECT_THAT(seen, ElementsAre("c1", "b1", "d4"));
}

TEST(Trace, ALevelThatIsOffEvaluatesNothing) {
  const Testing::RecordedTraces traces("TraceTest", 2);
  const Orb::TraceHandle handle("TraceTest");
  int evaluated = 0;
  const auto argument = [&] { return ++evaluated; };
  ORB_TRACE(handle, 3, "off {}", argument());
  EXPECT_EQ(evaluated, 0);
  ORB_TRACE(handle, 2, "on {}", argument());
  EXPECT_THAT(traces.texts(), ElementsAre("on 1"));
}

TEST(Trace, SettingsNameCategoriesAndAStarNamesTheRest) {
  const Testing::RecordedTraces traces("Trace", 0);
  const Orb::TraceHandle named("SettingNamed");
  const Orb::TraceHandle other("SettingOther");
  Orb::traceSettingIs("SettingNamed/2,*/1,,SettingWhole");
  const Orb::TraceHandle whole("SettingWhole");
  const Orb::TraceHandle later("SettingLater");
  EXPECT_TRUE(named.isOn(2) && !named.isOn(3));
  EXPECT_TRUE(other.isOn(1) && !other.isOn(2));
  EXPECT_TRUE(whole.isOn(9));
  EXPECT_TRUE(later.isOn(1) && !later.isOn(2));
  EXPECT_THAT(traces.texts(), IsEmpty());
  Orb::traceSettingIs("*/0,Bad/x,/3,Worse/-2");
  EXPECT_THAT(traces.texts(),
              ElementsAre("cannot read the trace setting 'Bad/x' (expected Category/level)",
                          "cannot read the trace setting '/3' (expected Category/level)",
                          "cannot read the trace setting 'Worse/-2' (expected Category/level)"));
}

TEST(AssertDeathTest, PrintsMessageConditionAndPlace) {
  const int held = 3;
  EXPECT_DEATH(ORB_ASSERT(held == 4, "held == 4", "holds {}", held),
               "assertion failed: holds 3: held == 4 \\(tests/Orb/RuntimeTest.cpp:[0-9]+\\)");
  ORB_ASSERT(held == 3, "held == 3", "not evaluated");
}

// Traces and tables escape what drives a terminal, and leave letters of any script alone.
TEST(Printable, EscapesWhatIsNoText) {
  const std::pair<std::string_view, const char*> cases[] = {
      {"plain ~", "plain ~"},
      {"Gr\u00f6\u00dfe \u03a9 \U0001d54f", "Gr\u00f6\u00dfe \u03a9 \U0001d54f"},
      {"\x1b[2J\n\x7f", "\\x1b[2J\\x0a\\x7f"},
      {std::string_view("a\0b", 3), "a\\x00b"},
      {"\u0085\u202e", "\\xc2\\x85\\xe2\\x80\\xae"},
      {"\xc3", "\\xc3"},
      {"\xc3(", "\\xc3("},
      {"\xc0\x80 \xed\xa0\x80 \xf4\x90\x80\x80 \xe0\x80\xaf",
       "\\xc0\\x80 \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xe0\\x80\\xaf"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Orb::printable(text), expected);
    EXPECT_EQ(Orb::printable(expected), expected) << "twice";
  }
}

TEST(Counter, IsListedPerObjectWhileTheObjectLives) {
  const auto mine = [] {
    std::vector<std::string> found;
    for (const auto& reading : Orb::counterReadings()) {
      if (reading.owner == "counter test") {
        found.push_back(fmt::format("{} {}", reading.name, reading.value));
      }
    }
    return found;
  };
  const Orb::Counter first("counter test", "seen");
  {
    Orb::Counter second("counter test", "seen");
    second.increment();
    second.increment();
    EXPECT_THAT(mine(), ElementsAre("seen 0", "seen 2"));
  }
  EXPECT_THAT(mine(), ElementsAre("seen 0"));
}

}  // namespace
