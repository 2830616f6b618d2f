#pragma once

// A simulated board of a test's own, and programs that run on it.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testing/Process.h"

namespace Korusim {

// Where the program is; the test program says so.
extern const char* const program;

class Board {
 public:
  explicit Board(const std::string& text) {
    directory_ = (std::filesystem::temp_directory_path() / "koru-sim-XXXXXX").string();
    if (!::mkdtemp(directory_.data())) throw std::runtime_error("cannot make " + directory_);
    write("board.toml", text);
  }
  ~Board() { std::filesystem::remove_all(directory_); }
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  std::string file(const std::string& name) const { return directory_ + "/" + name; }
  std::string state(const std::string& name) const { return file("board.korusim/" + name); }
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
  }

  // korusim with those words behind the board file, separated by blanks.
  Testing::Command command(const std::string& words) const {
    std::vector<std::string> argv = {program, file("board.toml")};
    std::istringstream in(words);
    for (std::string word; in >> word;) argv.push_back(word);
    return {argv, {"ASAN_OPTIONS=verify_asan_link_order=0", "ORB_TRACE="}};
  }
  Testing::Outcome run(const std::string& words) const { return Testing::run(command(words)); }
  std::string out(const std::string& words) const {
    const Testing::Outcome outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << words << "\n" << outcome.err;
    return outcome.out;
  }
  std::string ledger() const {
    std::stringstream text;
    text << std::ifstream(state("ledger")).rdbuf();
    return text.str();
  }
  void clearLedger() const { std::filesystem::remove(state("ledger")); }

 private:
  std::string directory_;
};

}  // namespace Korusim
