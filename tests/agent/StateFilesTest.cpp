// The agent's own files: what others have put in their place is refused, and nothing waits for it.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "board/chips/StateFiles.h"
#include "board/chips/internal/ChipFiles.h"
#include "testing/Expect.h"
#include "testing/StateDirectory.h"

namespace {

namespace fs = std::filesystem;
using KoruRegFile::ShadowFieldKey;
using Testing::failure;
using testing::HasSubstr;

class StateFiles : public testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) const {
    std::ofstream(state.file(name)) << text;
  }
  std::string text(const std::string& name) const {
    std::ifstream in(state.file(name));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  const Testing::StateDirectory state;
};

TEST_F(StateFiles, ADirectoryIsTheSameHoweverItIsSpelled) {
  const std::string real = fs::canonical(state.path()).string();
  fs::create_directory(state.file("a"));
  fs::create_directory_symlink("a", state.file("link"));
  for (const char* spelled : {"a", "a/", "link", "link/", "./b/../a", "link/../a"}) {
    EXPECT_EQ(Board::prepareStateDirectory(state.file(spelled)), real + "/a") << spelled;
  }
  EXPECT_EQ(Board::prepareStateDirectory(state.file("new/one/")), real + "/new/one");
  EXPECT_EQ(fs::status(real + "/new/one").permissions(), fs::perms(0750));
}

TEST_F(StateFiles, DirectoriesOfOthersAreRefused) {
  fs::create_directory(state.file("open"));
  fs::create_directory(state.file("own"));
  fs::create_directory_symlink("own", state.file("link"));
  const auto prepare = [&](const char* name) {
    return failure([&] { Board::prepareStateDirectory(state.file(name)); });
  };
  const auto make = [&](const char* name) {
    return failure([&] { Board::makeOwnDirectory(state.file(name)); });
  };
  for (const unsigned mode : {0777u, 0770u, 0702u}) {
    fs::permissions(state.file("open"), fs::perms(mode));
    EXPECT_THAT(prepare("open"),
                HasSubstr(fmt::format("open: others may write it (mode {:04o})", mode)));
    EXPECT_THAT(make("open"), HasSubstr("others may write it"));
  }
  const std::string nothing = failure([] {});
  EXPECT_NE(make("link"), nothing);
  EXPECT_EQ(make("own"), nothing);
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives directories away";
  ASSERT_EQ(::chown(state.file("own").c_str(), 1, 1), 0);
  EXPECT_THAT(prepare("own"), HasSubstr("own: it belongs to user 1"));
  EXPECT_THAT(make("own"), HasSubstr("it belongs to user 1"));
}

TEST_F(StateFiles, FilesOfOthersAreRefusedAndLeftAlone) {
  write("kept", "kept");
  fs::permissions(state.file("kept"), fs::perms(0644));
  fs::create_symlink("kept", state.file("link"));
  fs::create_hard_link(state.file("kept"), state.file("hard"));
  ASSERT_EQ(::mkfifo(state.file("pipe").c_str(), 0600), 0);
  const std::pair<const char*, const char*> table[] = {{"link", "it is a symbolic link"},
                                                       {"hard", "it has another name as well"},
                                                       {"pipe", "it is no regular file"}};
  for (const auto& [name, why] : table) {
    const std::string path = state.file(name);
    for (const int flags : {O_RDONLY, O_RDWR | O_CREAT}) {
      EXPECT_EQ(failure([&] { Board::openOwn(path, flags); }), "cannot use " + path + ": " + why);
    }
  }
  EXPECT_FALSE(Board::openOwn(state.file("none"), O_RDONLY));
  // In the way of a new file.
  for (const char* name : {"link", "hard", "pipe"}) {
    fs::rename(state.file(name), state.file("x.next"));
    Board::replaceFile(state.file("x"), name);
    EXPECT_EQ(text("x"), name);
  }
  EXPECT_EQ(text("kept"), "kept");
  EXPECT_EQ(fs::status(state.file("kept")).permissions(), fs::perms(0644));
}

TEST_F(StateFiles, WhatWasSavedIsWholeOrSetAside) {
  const Board::ChipFiles files(state.path(), "c");
  files.prepare();
  EXPECT_FALSE(files.saved());
  files.savedIs(
      {{{ShadowFieldKey(8, 4, 3), 5}, "a register"}, {{ShadowFieldKey(1, 0, 32), 7}, ""}});
  const std::string whole = text("korud/c.saved");
  const auto saved = files.saved().value();
  EXPECT_EQ(saved.at(0).value, KoruRegFile::ShadowFieldValue(ShadowFieldKey(8, 4, 3), 5));
  EXPECT_EQ(saved.at(0).reg, "a register");
  EXPECT_EQ(saved.at(1).value.value(), 7u);
  EXPECT_EQ(saved.at(1).reg, "");
  for (const std::string& damaged :
       {std::string(), whole.substr(0, whole.size() - 1), whole.substr(0, whole.find("end")),
        whole.substr(whole.find('\n') + 1), whole + "1 2 3 4\n",
        "1 32 1 0\nend 1\n" + std::string(), "1 0 33 0\nend 1\n" + std::string(),
        "1 0 1 0x\nend 1\n" + std::string()}) {
    SCOPED_TRACE(damaged);
    fs::remove(state.file("korud/c.saved.damaged"));
    write("korud/c.saved", damaged);
    EXPECT_FALSE(files.saved());
    EXPECT_EQ(text("korud/c.saved.damaged"), damaged);
  }
  // What cannot be read now may be whole.
  ASSERT_EQ(::mkfifo(state.file("korud/c.saved").c_str(), 0600), 0);
  EXPECT_THAT(failure([&] { files.saved(); }), HasSubstr("it is no regular file"));
  EXPECT_TRUE(fs::is_fifo(state.file("korud/c.saved")));
  files.savedIs({});
  EXPECT_TRUE(files.saved()->empty());
}

}  // namespace
