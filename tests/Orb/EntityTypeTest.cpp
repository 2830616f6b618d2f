// The interface by name.

#include <gmock/gmock.h>

#include <initializer_list>
#include <string_view>

#include "testing/Expect.h"
#include "tests/Orb/Lamp.h"

namespace {

using Home::Lamp;
using Testing::call;
using testing::HasSubstr;

// The call has to be refused with a message.
template <class Exception, class Message>
void expectRefused(Orb::Entity& entity, const char* operation,
                   std::initializer_list<std::string_view> arguments, Message message) {
  EXPECT_THAT([&] { call(entity, operation, arguments); },
              testing::ThrowsMessage<Exception>(message));
}

TEST(EntityType, ReadsAttributesInStringForm) {
  const auto lamp = Orb::make<Lamp>("hall");
  lamp->bulbIs("b", 60);
  lamp->bulbIs("a", 40);
  lamp->bulbIs("b", 61);
  EXPECT_EQ(Orb::attributeStrep(*lamp, "name"), "'hall'");
  EXPECT_EQ(Orb::attributeStrep(*lamp, "lit"), "False");
  EXPECT_EQ(Orb::attributeStrep(*lamp, "bulb"), "{'b': 61, 'a': 40}");
  EXPECT_THROW(Orb::attributeStrep(*lamp, "colour"), Orb::InterfaceException);
}

TEST(EntityType, WritesAttributesInPieces) {
  const auto lamp = Orb::make<Lamp>("hall");
  const auto begin = [](const char* name) {
    for (const auto& attribute : Lamp::entityType().attributes()) {
      if (attribute.name == name) return attribute.pieces();
    }
    throw std::logic_error(name);
  };
  const auto all = [&](Orb::StrepPieces& pieces) {
    std::string text;
    while (pieces.next(text, *lamp)) text += '|';
    return text;
  };
  EXPECT_EQ(all(*begin("lit")), "False");
  EXPECT_EQ(all(*begin("bulb")), "{}");
  lamp->bulbIs("b", 60);
  lamp->bulbIs("a", 40);
  EXPECT_EQ(all(*begin("bulb")), "{'b': 60|, 'a': 40|}");
  // What changes meanwhile is written as it is then; what comes or goes ends it.
  const auto changing = begin("bulb");
  std::string text;
  changing->next(text, *lamp);
  lamp->bulbIs("b", 61);
  lamp->bulbIs("a", 41);
  EXPECT_EQ(text + all(*changing), "{'b': 60, 'a': 41|}");
  const auto growing = begin("bulb");
  growing->next(text, *lamp);
  lamp->bulbIs("c", 1);
  EXPECT_THROW(growing->next(text, *lamp), std::runtime_error);
}

TEST(EntityType, CallsOperationsWithStringForms) {
  const auto lamp = Orb::make<Lamp>("hall");
  EXPECT_EQ(call(*lamp, "litIs", {"True"}), "None");
  EXPECT_TRUE(lamp->lit());
  EXPECT_EQ(call(*lamp, "dim", {"255", "warm-white"}), "513");
  EXPECT_EQ(call(*lamp, "place", {"Value('Home::Place', ** {'room': 'hall', 'shelf': 3})"}),
            "'hall'");
  EXPECT_EQ(call(*lamp, "twin", {"Entity('Home::Lamp', 'hall')"}), "Entity('Home::Lamp', 'hall')");
  EXPECT_EQ(call(*lamp, "twin", {"None"}), "None");
}

TEST(EntityType, SaysWhatIsWrongWithACall) {
  const auto lamp = Orb::make<Lamp>("hall");
  expectRefused<Orb::InterfaceException>(*lamp, "explode", {},
                                         "Home::Lamp has no operation 'explode'");
  expectRefused<Orb::InterfaceException>(*lamp, "dim", {"1"},
                                         "Home::Lamp::dim takes 2 arguments, got 1");
  expectRefused<Orb::RangeException>(*lamp, "dim", {"256", "red"},
                                     "argument 'level': 256 is out of range for U8 (0..255)");
  expectRefused<Orb::ParseException>(*lamp, "dim", {"1", "blue"},
                                     HasSubstr("argument 'colour': expected Home::Colour"));
  expectRefused<Orb::InterfaceException>(
      *lamp, "haunt", {"x"},
      "Home::Lamp::haunt: argument 'ghost': Home::Ghost cannot be read from a text");
}

}  // namespace
