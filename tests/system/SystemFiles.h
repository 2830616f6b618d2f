#pragma once

// For tests of what a system file may say: its text beside a map with the registers A, of 16 bits,
// B, of 32, and R, of 8 and read-only.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <fstream>
#include <string>
#include <vector>

#include "board/description/SystemFile.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"

namespace SystemFile {

class SystemFiles : public testing::Test {
 protected:
  SystemFiles() {
    write("map.csv",
          "number,name,type,writeable,width\n0,A,cfg,true,16\n1,B,cfg,true,32\n2,R,sts,false,8\n");
  }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(directory.file(name)) << text;
  }
  Board::Description read(const std::string& text) const {
    write("board.toml", text);
    return Board::readFile(directory.file("board.toml"));
  }
  // What is said of the file, or of what is in it, without its path.
  std::string refusal(const std::string& text) const {
    return withoutPath(Testing::failure<Board::FileError>([&] { read(text); }));
  }
  std::vector<std::string> problemsOf(const std::string& text) const {
    std::vector<std::string> found;
    for (const auto& problem : read(text).problems) found.push_back(withoutPath(problem.message()));
    return found;
  }
  static std::string chip(const std::string& name, const std::string& rest) {
    return fmt::format("[[chip]]\nname = \"{}\"\nregister_map = \"map.csv\"\n{}", name, rest);
  }

  const Testing::StateDirectory directory;

 private:
  std::string withoutPath(const std::string& what) const {
    const std::string path = directory.file("board.toml:");
    EXPECT_THAT(what, testing::StartsWith(path));
    return what.substr(path.size());
  }
};

}  // namespace SystemFile
