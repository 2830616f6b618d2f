// What a system file says of fields as data sheets have them: kinds, meanings, status fields, the
// order of writes, and what is read of a chip without anybody's asking.

#include "tests/system/SystemFiles.h"

namespace {

using namespace std::chrono_literals;
using Board::FieldKind;
using SystemFile::SystemFiles;

class FieldKeys : public SystemFiles {
 protected:
  // A chip whose fifth line is the field p of the register A, of four bits, and whose sixth is what
  // stands for it, with those keys.
  static std::string fields(const std::string& physical, const std::string& logical,
                            const std::string& rest = "") {
    return chip("c", fmt::format("memory = true\nphysical.A.p = {{ bits = \"7:4\"{} }}\n"
                                 "logical.l.p = {{ to = \"A.p\"{} }}\n{}",
                                 physical, logical, rest));
  }
  static std::string with(const std::string& rest) { return fields("", "", rest); }
  static std::string status(const std::string& keys) {
    return with("status.R.s = { bits = \"3:0\"" + keys + " }\n");
  }
};

TEST_F(FieldKeys, AreRead) {
  const auto board = read(chip("c", R"(
memory = true
first = ["B", "A"]
read_changes = ["R", "A"]
verify_every = "2min"
canary = { register = "B", reset = 0xffff_ffff, every = "100ms" }
[chip.status.R]
LOW = { bits = "3:0", values = { "on fire" = 9, cold = 0x1 } }
HIGH = { bits = 7, description = "Whether it is high" }
[chip.status.A]
TEMPERATURE = { bits = "15:4", signed = true, scale = 0.0625, offset = 1, unit = "°C" }
[chip.physical.A]
settle = "10ms"
T = { bits = "15:4", signed = true, scale = 0.0625, unit = "°C", description = "Limit" }
RST = { bits = 0, kind = "pulse" }
[chip.physical.B]
settle = { bits = 0, kind = "volatile" }
W1C = { bits = "2:1", kind = "write1clear" }
GAIN = { bits = "5:4", kind = "stored", values = { x1 = 0, x2 = 1 }, description = "Gain" }
[chip.logical.l]
t = { to = "A.T", bits = "59:48", value = "-3.5 °C", description = "Alert" }
reset = { to = "A.RST" }
busy = { to = "B.settle", bits = 1, value = 1 }
clear = { to = "B.W1C", bits = "5:4" }
gain = { to = "B.GAIN", bits = "9:8", value = "quarter", values = { quarter = 3 } }
)"));
  ASSERT_EQ(board.problems.size(), 0u) << board.problems.at(0).message();
  const Board::Chip& chip = board.chips.at(0);

  Board::Meaning limit;
  limit.description = "Alert";
  limit.unit = "°C";
  limit.scale = 0.0625;
  limit.isSigned = true;
  Board::Meaning gain;
  gain.description = "Gain";
  gain.values = {{"quarter", 3}};
  using Board::SharedMeaning;
  EXPECT_THAT(
      chip.fields,
      testing::UnorderedElementsAre(
          Board::Field{"l",
                       "t",
                       {48, 12},
                       0xfc8,
                       "A",
                       "T",
                       {4, 12},
                       0,
                       FieldKind::stored,
                       SharedMeaning(limit)},
          Board::Field{"l", "reset", {0, 1}, 0, "A", "RST", {0, 1}, 0, FieldKind::pulse, {}},
          Board::Field{"l", "busy", {1, 1}, 1, "B", "settle", {0, 1}, 4, FieldKind::changing, {}},
          Board::Field{"l", "clear", {4, 2}, 0, "B", "W1C", {1, 2}, 4, FieldKind::write1clear, {}},
          Board::Field{"l",
                       "gain",
                       {8, 2},
                       3,
                       "B",
                       "GAIN",
                       {4, 2},
                       4,
                       FieldKind::stored,
                       SharedMeaning(gain)}));

  limit.description.clear();
  limit.offset = 1;
  Board::Meaning low;
  low.values = {{"cold", 1}, {"on fire", 9}};
  Board::Meaning high;
  high.description = "Whether it is high";
  EXPECT_EQ(chip.statusFields,
            std::vector<Board::StatusField>({{"A", "TEMPERATURE", {4, 12}, 0, SharedMeaning(limit)},
                                             {"R", "LOW", {0, 4}, 8, SharedMeaning(low)},
                                             {"R", "HIGH", {7, 1}, 8, SharedMeaning(high)}}));
  EXPECT_EQ(chip.readChanges, std::set<std::string>({"A", "R"}));
  EXPECT_EQ(chip.order, (Board::WriteOrder{{"B", "A"}, {}, {{"A", 10ms}}}));
  EXPECT_EQ(chip.upkeep, (Board::Upkeep{2min, Board::Canary{"B", 4, 0xffffffff, 100ms}}));
}

TEST_F(FieldKeys, ThatCannotBeAreToldWithTheirLine) {
  const std::string apart = "with that scale and offset its numbers are all the same, or too large";
  const std::string time = " to 1440min, as in \"10ms\", \"30s\" or \"2min\"";
  const struct {
    std::string board;
    std::vector<std::string> problems;  // all of them: line and text
  } table[] = {
      // kinds
      {fields(", kind = \"pulsed\"", ""),
       {"5: kind has to be one of stored, pulse, write1clear, volatile"}},
      {fields(", kind = 1", ""), {"5: kind has to be a string"}},
      {fields(", kind = \"pulse\"", ", value = 1"),
       {"6: field l.p is a pulse, which cannot have a value beside 0 here"}},
      {fields(", kind = \"write1clear\", values = { all = 15 }", ", value = \"all\""),
       {"6: field l.p is a write1clear, which cannot have a value beside 0 here"}},
      {fields(", kind = \"pulse\"", ", value = 0"), {}},
      // meanings
      {fields(", scale = 0", ""), {"5: field A.p: a scale of 0 leaves nothing of its value"}},
      {status(", scale = -0.0"), {"7: field R.s: a scale of 0 leaves nothing of its value"}},
      {fields("", ", scale = nan"), {"6: scale has to be a finite number"}},
      {fields("", ", offset = -inf"), {"6: offset has to be a finite number"}},
      {fields("", ", scale = \"2\""), {"6: scale has to be a finite number"}},
      {status(", scale = 1e308"), {"7: field R.s: " + apart}},
      {status(", scale = 1e307"), {}},
      {status(", offset = 1e14"), {"7: field R.s: " + apart}},
      {status(", offset = 1e13"), {}},
      {status(", offset = 9223372036854775807"), {"7: field R.s: " + apart}},
      {fields("", ", signed = 1"), {"6: signed has to be true or false"}},
      {fields(", signed = true", ", bits = \"2:0\""),
       {"6: field l.p [2:0] is signed, and narrower than the physical field A.p [7:4], which "
        "would never hold a number below zero"}},
      {fields("", ", unit = 3, description = [ ]"),
       {"6: description has to be a string", "6: unit has to be a string"}},
      {fields(R"(, unit = "\u001b[31m", description = "a\nb")", ""),
       {"5: description has to be one line, without control characters",
        "5: unit has to be one line, without control characters"}},
      {status(R"(, unit = "\u009b")"), {"7: unit has to be one line, without control characters"}},
      {status(R"(, unit = "\u00b5V")"), {}},
      {status(", value = 1"),
       {"7: there is no key 'value' here; there are bits, description, unit, scale, offset, "
        "signed, values"}},
      // named values
      {fields("", ", values = [\"a\"]"), {"6: values has to be a table"}},
      {status(", values = { a = 16 }"),
       {"7: the value a = 0x10 has more than the 4 bits of field R.s"}},
      {fields(", values = { a = 15 }", ", bits = \"2:0\""),
       {"6: the value a = 0xf has more than the 3 bits of field l.p"}},
      {status(", values = { a = -1, b = 4294967296, c = 1.0 }"),
       {"7: the value 'a' has to be a number that fits the 4 bits of field R.s, as it stands in "
        "the register",
        "7: the value 'b' has to be a number that fits the 4 bits of field R.s, as it stands in "
        "the register",
        "7: the value 'c' has to be a number that fits the 4 bits of field R.s, as it stands in "
        "the register"}},
      {status(", values = { a = 3, b = 1, c = 3 }"), {"7: the values 'a' and 'c' are both 0x3"}},
      {status(", values = { \"\" = 1 }"), {"7: a value's name is empty: ''"}},
      {status(", values = { \" a\" = 1 }"),
       {"7: a value's name begins or ends with a blank: ' a'"}},
      {status(R"(, values = { "\u001b[2J" = 1 })"),
       {"7: a value's name has a control character: '?'"}},
      {status(", values = { \"7\" = 1 }"), {"7: a value's name could be meant as a number: '7'"}},
      {status(", values = { \"-.5\" = 1 }"),
       {"7: a value's name could be meant as a number: '-.5'"}},
      {status(", values = { 0x1 = 1 }"), {"7: a value's name could be meant as a number: '0x1'"}},
      {status(", values = { \"7 V\" = 1 }, unit = \"V\""),
       {"7: a value's name could be meant as a number: '7 V'"}},
      {status(", values = { 2x = 1, 1of8 = 2, \"1/4\" = 3, inf = 4, - = 5 }, unit = \"V\""), {}},
      // values
      {fields(", scale = 0.5", ", value = \"1.2\""),
       {"6: the value of field l.p: '1.2' lies between 1.0 and 1.5, and the field has no number "
        "there"}},
      {fields("", ", value = \"0x10\""), {"6: the value of field l.p: 0x10 is more than 0xf"}},
      {fields("", ", value = 1.5"), {"6: value has to be a number from 0 to 4294967295"}},
      // status fields
      {with("status = 3\n"), {"7: status has to be a table"}},
      {with("status.R = 3\n"), {"7: R has to be a table"}},
      {with("status.R.settle = \"1s\"\n"),
       {"7: status.R.settle has to be a table, as in { bits = \"7:4\" }"}},
      {with("status.N.s.bits = 0\n"), {"7: there is no register 'N' in the map"}},
      {with("status.R.s.bits = 8\n"),
       {"7: field R.s [8:8] lies outside its register, which has 8 bits"}},
      {with("status.R.s = { }\n"), {"7: field R.s has no bits"}},
      {with("status.R = { s = { bits = \"3:0\" }, t = { bits = \"2:1\" } }\n"), {}},
      {with("physical.B.q.bits = 0\nlogical.R.s.to = \"B.q\"\nstatus.R.s.bits = 3\n"),
       {"9: there is a logical field R.s already"}},
      {with("status.A.p.bits = 3\n"), {}},
      {chip("c", "spi = \"/dev/s\"\nstatus.R.s.bits = 0\nstatus.B.s.bits = 0\n"),
       {"6: register 'B' cannot be read: it has 32 bits, and an SPI message carries 16 at once",
        "5: register 'R' cannot be read: such messages are writes only; settings behind the place "
        "say how to read"}},
      {chip("c", "spi = \"/dev/s,value_bits=8\"\nstatus.R.s.bits = 0\n"),
       {"5: register 'R' cannot be read: the chip takes writes only, as its format has no "
        "read_command"}},
      {chip("c", "spi = \"/dev/s,value_bits=8,read_command=0\"\nstatus.R.s.bits = 0\n"), {}},
      // the order of writes
      {with("first = \"A\"\n"), {"7: first has to be an array, as in [\"A\", \"B\"]"}},
      {with("last = [\n1,\n\"A\"]\n"), {"8: last has to be an array of strings"}},
      {with("first = [\n\"N\",\n\"B\"]\n"),
       {"8: there is no register 'N' in the map",
        "9: register 'B' has no physical fields, so it is never written"}},
      {with("first = [\"A\", \"A\"]\n"), {"7: register 'A' stands in first already"}},
      {with("last = [\"A\"]\nfirst = [\"A\"]\n"), {"7: register 'A' stands in first already"}},
      {with("physical.A.settle = 10\n"),
       {"7: settle has to be a time from 0ms to 1min, as in "
        "\"10ms\", \"30s\" or \"2min\""}},
      {with("physical.A.settle = \"61s\"\n"),
       {"7: settle has to be a time from 0ms to 1min, as in "
        "\"10ms\", \"30s\" or \"2min\""}},
      {with("physical.B.settle = \"60s\"\n"),
       {"7: register 'B' has no physical fields, so it is never written"}},
      {with("logical.l.settle = \"1s\"\n"),
       {"7: logical.l.settle has to be a table, as in { bits = \"7:4\" }"}},
      // what is read
      {with("read_changes = [\"R\", \"R\", \"N\"]\n"),
       {"7: register 'R' stands in read_changes already",
        "7: there is no register 'N' in the map"}},
      {with("verify_every = 30\n"), {"7: verify_every has to be a time from 100ms" + time}},
      {with("verify_every = \"99ms\"\n"), {"7: verify_every has to be a time from 100ms" + time}},
      {with("verify_every = \"4294967295min\"\n"),
       {"7: verify_every has to be a time from 100ms" + time}},
      {with("verify_every = \"1h\"\n"), {"7: verify_every has to be a time from 100ms" + time}},
      {with("verify_every = \"-1s\"\n"), {"7: verify_every has to be a time from 100ms" + time}},
      {with("canary = \"A\"\n"), {"7: canary has to be a table"}},
      {with("canary = { }\n"),
       {"7: canary needs the key 'register'", "7: canary needs the key 'reset'"}},
      {with("canary = { register = \"A\", reset = 0x10000, every = \"1ms\", evry = 1 }\n"),
       {"7: there is no key 'evry' here; there are register, reset, every",
        "7: every has to be a time from 100ms" + time,
        "7: reset has to be a number from 0 to 65535"}},
      {with("canary = { register = \"R\", reset = 0 }\n"),
       {"7: register 'R' has no physical fields, so it is never written"}},
      {with("canary = { register = \"A\", reset = 0 }\nread_changes = [\"A\"]\n"),
       {"7: canary: reading register 'A' changes the chip"}},
      {chip("c",
            "spi = \"/dev/s\"\nphysical.A.p.bits = 0\nlogical.l.p.to = \"A.p\"\n"
            "canary = { register = \"A\", reset = 0 }\n"),
       {"7: register 'A' cannot be read: such messages are writes only; settings behind the place "
        "say how to read"}},
  };
  for (auto [board, problems] : table) {
    SCOPED_TRACE(board);
    for (std::string& problem : problems) problem.insert(problem.find(' '), " chip 'c':");
    EXPECT_EQ(problemsOf(board), problems);
    // The others come up.
    EXPECT_THAT(read(board + chip("d", "memory = true\n")).chips,
                testing::Contains(testing::Field(&Board::Chip::name, "d")));
  }
}

TEST_F(FieldKeys, MayHaveManyValues) {
  std::string values;
  for (int i = 0; i < 10'000; ++i) values += fmt::format("v{} = {}, ", i, i);
  const auto boardOf = [&](const char* bits) {
    return with(fmt::format("status.B.s = {{ bits = \"{}\", values = {{ {} }} }}\n", bits,
                            values.substr(0, values.size() - 2)));
  };
  const auto board = read(boardOf("13:0"));
  ASSERT_EQ(board.chips.size(), 1u);
  EXPECT_EQ(board.chips[0].statusFields.at(0).meaning->textOf(9'876, 14), "v9876");
  EXPECT_EQ(problemsOf(boardOf("12:0")).size(), 10'000u - 8'192);
}

}  // namespace
