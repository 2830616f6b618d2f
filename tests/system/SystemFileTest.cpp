// System files that cannot be used, or not wholly: each is told with its line and the reason.

#include <sys/stat.h>

#include "board/devices/MemoryWindow.h"
#include "board/devices/Window.h"
#include "testing/Expect.h"
#include "tests/system/SystemFiles.h"

namespace {

using SystemFile::SystemFiles;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(SystemFiles, ChipsThatCannotBeUsedAreToldWithTheirLine) {
  const std::string memory = "memory = true\n";
  // Lines 5 and 6 are the fields p and q of the register A, lines 7 and 8 what stands for them.
  const auto fields = [&](const std::string& p, const std::string& q,
                          const std::string& l = "to = \"A.p\"",
                          const std::string& m = "to = \"A.q\"") {
    return chip("c", fmt::format("{}physical.A.p = {{ {} }}\nphysical.A.q = {{ {} }}\n"
                                 "logical.l.p = {{ {} }}\nlogical.l.q = {{ {} }}\n",
                                 memory, p, q, l, m));
  };
  const auto second = [&](const std::string& name, const std::string& transport) {
    return chip("c", "memory = \"w\"\n") + chip(name, transport);
  };
  const std::string p = "bits = \"3:0\"", q = "bits = \"7:4\"";
  const struct {
    std::string board;
    std::vector<std::string> problems;  // all of them: line, chip and text
  } table[] = {
      {fields(p, q), {}},
      {fields(p, "bits = \"6:3\""),
       {"6: chip 'c': field A.q [6:3] overlaps A.p [3:0]",
        "8: chip 'c': field l.q [6:3] overlaps l.p [3:0]"}},
      {fields(p, "bits = 3", "to = \"A.p\"", "to = \"A.q\", bits = 9"),
       {"6: chip 'c': field A.q [3:3] overlaps A.p [3:0]"}},
      {chip("c", memory + "physical.A.p = { bits = \"7:0\" }\nphysical.A.q = { bits = 1 }\n"
                          "physical.A.r = { bits = 3 }\nlogical.l = { p = { to = \"A.p\" }, "
                          "q = { to = \"A.q\", bits = 9 }, r = { to = \"A.r\", bits = 8 } }\n"),
       {"6: chip 'c': field A.q [1:1] overlaps A.p [7:0]",
        "7: chip 'c': field A.r [3:3] overlaps A.p [7:0]"}},
      {fields(p, "bits = \"16:4\""),
       {"6: chip 'c': field A.q [16:4] lies outside its register, which has 16 bits"}},
      {fields(p, "bits = \"15:4\""), {}},
      {fields(p, "bits = \"4:7\""),
       {"6: chip 'c': bits have to be a number or \"high:low\", from 0 to 31 and at most 32 of "
        "them",
        "8: chip 'c': field l.q stands for A.q, which is no physical field here"}},
      {fields(p, q + ", widht = 1"),
       {"6: chip 'c': there is no key 'widht' here; there are bits, kind, description, unit, "
        "scale, offset, signed, values"}},
      {fields(p, q, "to = \"A.p\"", "to = \"A.p\""),
       {"8: chip 'c': the physical field A.p has a logical field already, in line 7",
        "6: chip 'c': no logical field stands for the physical field A.q"}},
      {fields(p, q, "to = \"A.p\", bits = \"4:0\"", "to = \"A.q\", bits = \"15:12\""),
       {"7: chip 'c': field l.p [4:0] is wider than the physical field A.p [3:0]"}},
      {fields(p, q, "to = \"A.p\", value = 16"),
       {"7: chip 'c': the value 0x10 has more than the 4 bits of field l.p"}},
      {fields(p, q, "to = \"A.p\", value = 15"), {}},
      {fields(p, q, "to = \"A.p\", valeu = 1"),
       {"7: chip 'c': there is no key 'valeu' here; there are bits, to, value, description, unit, "
        "scale, offset, signed, values"}},
      {chip("c", memory + "physical.R.f.bits = 0\nlogical.l.f.to = \"R.f\"\n"),
       {"5: chip 'c': register 'R' is read-only in the map"}},
      {chip("c", memory + "physical.N.f.bits = 0\nlogical.l.f.to = \"N.f\"\n"),
       {"5: chip 'c': there is no register 'N' in the map"}},
      {chip("c", memory + "mock = true\n"), {"5: chip 'c': there is more than one transport"}},
      {chip("c", memory + "physical.A.'p.x' = { bits = 0 }\nphysical.'A.p'.x = { bits = 1 }\n"
                          "logical.l.f = { to = \"A.p.x\" }\n"),
       {"6: chip 'c': there is no register 'A.p' in the map",
        "7: chip 'c': there are two physical fields that are written A.p.x",
        "5: chip 'c': no logical field stands for the physical field A.p.x",
        "6: chip 'c': no logical field stands for the physical field A.p.x"}},
      {second("c", memory), {"6: chip 'c': the chip in line 1 has that name"}},
      {chip("a/b", memory), {"2: chip 'a/b': a chip's name must not have a '/'"}},
      {chip("c.damaged", memory),
       {"2: chip 'c.damaged': a chip's name must not end in '.damaged', as tables do that were "
        "set aside"}},
      {second("d", "memory = \"./w\"\n"), {"8: chip 'd': the chip with line 4 has that window"}},
      {second("d", "memory = \"w2\"\n"), {}},
      {chip("c", "memory = \"x/../korud.lock\"\n"),
       {"4: chip 'c': memory: 'x/../korud.lock' is the agent's own"}},
      {second("d", "memory = \"" + directory.file("../w") + "\"\n"), {}},
      {second("d", "memory = \"" + directory.file("w") + "\"\n"),
       {"8: chip 'd': the chip with line 4 has that window"}},
      {chip("c", "memory = \"" + directory.file("korud/x") + "\"\n"),
       {"4: chip 'c': memory: '" + directory.file("korud/x") + "' is the agent's own"}},
      {chip("c", "memory = \"korud/c.saved\"\n"),
       {"4: chip 'c': memory: 'korud/c.saved' is the agent's own"}},
      {chip("c", memory + "device_id = \"12:34:5\"\n"), {}},
      {chip("c", memory + "device_id = \"1234\"\n"),
       {"5: chip 'c': device_id has to be vendor:device or vendor:device:revision, hexadecimal"}},
      {chip("c", memory + "device_id = \"1:2:3:4\"\n"),
       {"5: chip 'c': device_id has to be vendor:device or vendor:device:revision, hexadecimal"}},
      {chip("c", memory + "on_start = \"never\"\n"),
       {"5: chip 'c': on_start has to be one of trust, rewrite, defaults"}},
      {"[profile.p]\nmajor = 1\nminor = 2\n", {}},
      {"[profile.p]\nmajor = -1\nmniro = 2\n",
       {"3: there is no key 'mniro' here; there are major, minor",
        "2: major has to be a number from 0 to 4294967295"}},
      {"profile = 3\nchpi = 1\n",
       {"2: there is no key 'chpi' here; there are chip, profile", "1: profile has to be a table"}},
  };
  for (const auto& [board, problems] : table) {
    SCOPED_TRACE(board);
    EXPECT_EQ(problemsOf(board), problems);
  }
  const auto good =
      read(chip("c", memory + "device_id = \"12:a4:5\"\n") + "[profile.p]\nmajor = 7\n");
  EXPECT_EQ(good.chips.at(0).devId, Ore::Central::DeviceId(0x12, 0xa4, 5));
  EXPECT_EQ(good.profiles, std::vector<Board::Profile>({{"p", 7, 0}}));
}

TEST_F(SystemFiles, WhatNoFileCanHoldIsToldWithItsLine) {
  const auto times = [](const std::string& text, size_t count) {
    std::string all;
    while (count-- > 0) all += text;
    return all;
  };
  const std::pair<std::string, const char*> table[] = {
      {"[!", "1: a table's header needs a name"},
      {"a = 1\n[[ !", "2: a table's header needs a name"},
      {"\n\xC3\xA4 = 1", "2: letters outside ASCII have to stand in quotes"},
      {"a = \"\xC3\xA4\"\nb.\xC3\xA4 = 1", "2: letters outside ASCII have to stand in quotes"},
      {"# \xFF", "1: the byte 0xff is no UTF-8"},
      {"a = '\xED\xA0\x80'", "1: the byte 0xed is no UTF-8"},
      {"a = '''\n\xC3", "2: the byte 0xc3 is no UTF-8"},
      {"a = \"\x01\"", "1: there is a control character, 0x01"},
      {std::string("a = 1\n\0", 7), "2: there is a control character, 0x00"},
      {times("a.", 175000) + "a = 1", "1: a key has more than 32 parts"},
      {std::string("[") + times("a.", 32) + "a]", "1: a key has more than 32 parts"},
      {std::string("a = ") + times("[", 100000), "1: more than 32 brackets are open"},
      {std::string("a = ") + times("{a=", 33), "1: more than 32 brackets are open"},
      {"[[chip]\n", "1: "},
  };
  for (const auto& [text, why] : table) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_THAT(refusal(text), StartsWith(why));
  }
  // What looks like it, and is none.
  EXPECT_THAT(read("profile.\"\xC3\xA4.[\" = { major = 1 } # \xC3\xA4 [!\n"
                   "chip = [\n  # ]\n]\r\n[profile.'a\"b']\n[profile.\"\\\"[!\"]\n[ profile.c ]\n")
                  .problems,
              testing::IsEmpty());
  EXPECT_THAT(read("profile.p = '''\n'[!''''\nprofile.q = \"\"\"\\\"\"\"\"\"\"\n").problems,
              testing::SizeIs(2));
}

TEST_F(SystemFiles, AWindowThatIsLongerStaysSo) {
  write("w", std::string(100, 'x'));
  Board::MemoryWindow window(directory.file("map.csv").c_str(), directory.file("w"));
  window.regWrite("A", 1);
  EXPECT_EQ(std::filesystem::file_size(directory.file("w")), 100u);
}

TEST_F(SystemFiles, NothingIsWaitedFor) {
  const std::string pipe = directory.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::pair<std::string, std::string> table[] = {
      {pipe, "is no regular file"},
      {directory.file(""), "is a directory"},
      {directory.file("none"), "there is no such file"}};
  for (const auto& [path, why] : table) {
    try {
      Board::readFile(path);
      ADD_FAILURE() << path;
    } catch (const Board::FileError& e) {
      EXPECT_EQ(e.what(), fmt::format("{}: {}", path, why));
      EXPECT_TRUE(e.unread());
    }
    if (path == directory.file("none")) continue;  // would be made
    EXPECT_THROW(Board::fileWindow(path, 16), std::system_error);
  }
  const auto board = read("[[chip]]\nname = \"c\"\nregister_map = \"pipe\"\nmemory = true\n");
  EXPECT_TRUE(board.isUnread);
  EXPECT_THAT(board.problems.at(0).message(), HasSubstr("board.toml:3: chip 'c': "));
}

}  // namespace
