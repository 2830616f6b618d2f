// korureg shadow, beside a writer in a process of its own.

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/regex.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EntityType.h"
#include "Orb/EventLoop.h"
#include "testing/Process.h"
#include "testing/StateDirectory.h"

namespace {

using KoruRegFile::ShadowFieldsConfig;
using nlohmann::json;
using Testing::Outcome;

constexpr const char* path = "KoruRegFile/shadowFieldsConfig/chip0";

struct Change {
  uint32_t address;
  uint8_t start, size;
  std::optional<uint32_t> value;  // none deletes
};

// A process that writes the table, change by change as it is told.
class Writer {
 public:
  explicit Writer(const std::vector<Change>& first) {
    if (::pipe(changes_) != 0 || ::pipe(done_) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) serve();
    awaitDone();
    for (const Change& change : first) tell(change);
  }
  ~Writer() {
    kill();
    for (const int fd : {changes_[0], changes_[1], done_[0], done_[1]}) ::close(fd);
  }
  void tell(const Change& change) {
    if (::write(changes_[1], &change, sizeof change) != sizeof change) std::abort();
    awaitDone();
  }
  void kill() {
    if (pid_ > 0) ::kill(pid_, SIGKILL), ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  pid_t pid() const { return pid_; }

 private:
  void awaitDone() {
    pollfd done{done_[0], POLLIN, 0};
    char c;
    if (::poll(&done, 1, 20000) != 1 || ::read(done_[0], &c, 1) != 1) std::abort();
  }
  [[noreturn]] void serve() {
    const auto tell = [&] { return ::write(done_[1], "d", 1) == 1 ? 0 : (::_exit(1), 1); };
    const auto group = OrbPool::entityManagerFactory()->mountGroup();
    const auto table = group->mount(ShadowFieldsConfig::entityType().name(), path, 0);
    auto& config = dynamic_cast<ShadowFieldsConfig&>(*table);
    const auto watch = Orb::eventLoop().readable(changes_[0], [&] {
      Change change;
      if (::read(changes_[0], &change, sizeof change) != sizeof change) ::_exit(0);
      const KoruRegFile::ShadowFieldKey key(change.address, change.start, change.size);
      change.value ? config.fieldIs({key, *change.value}) : config.fieldDel(key);
      tell();
    });
    tell();
    Orb::eventLoop().run();
    ::_exit(0);
  }
  int changes_[2], done_[2];
  pid_t pid_;
};

class ShadowCommand : public testing::Test {
 protected:
  Testing::Command command(const std::string& name, const char* where = path) const {
    return {{KORUREG_PROGRAM, "shadow", name, where, "--state-dir", state.path()},
            "",
            {"ORB_TRACE="},
            ""};
  }
  Testing::Command jsonCommand(const std::string& name) const {
    Testing::Command asJson = command(name);
    asJson.argv.emplace_back("--json");
    return asJson;
  }
  Outcome run(const std::string& name) const { return Testing::run(command(name)); }
  json runJson(const std::string& name) const {
    return json::parse(Testing::run(jsonCommand(name)).out);
  }
  // The next line, without its time.
  static std::string next(Testing::Process& watch) {
    return boost::regex_replace(watch.line(), boost::regex("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3}  "), "");
  }
  Testing::StateDirectory state;
};

TEST_F(ShadowCommand, ShowsAndChecksATableWithAndWithoutItsWriter) {
  Writer writer({{0x100, 8, 8, 0xab}, {0x44, 0, 32, 7}, {0x100, 0, 1, 1}, {4, 0, 1, 1}});
  writer.tell({4, 0, 1, std::nullopt});
  const std::string table =
      "ADDRESS    BITS         HEX  DECIMAL\n"
      "   0x44  [31:0]  0x00000007        7\n"
      "  0x100   [0:0]         0x1        1\n"
      "  0x100  [15:8]        0xab      171\n";
  EXPECT_EQ(run("show").out, table);
  const json shown = runJson("show");
  EXPECT_EQ(shown["writer"], writer.pid());
  EXPECT_EQ(shown["type"], "KoruRegFile::ShadowFieldsConfig");
  EXPECT_EQ(shown["fields"][2], json::parse(R"({"address":256,"start":8,"size":8,"value":171})"));
  writer.kill();
  const Outcome orphan = run("show");
  EXPECT_EQ(orphan.out, table + "detached: the writer is gone, and these are its last contents\n");
  EXPECT_EQ(orphan.exitCode, 0);
  EXPECT_EQ(runJson("show")["writer"], nullptr);
  const Outcome check = run("check");
  EXPECT_EQ(check.out, "ok: 3 entries in 16 slots, generation 1\n");
  EXPECT_EQ(check.exitCode, 0);
}

TEST_F(ShadowCommand, NamesWhatIsDamagedOrForeignOrMissing) {
  const std::string file = state.file(path);
  EXPECT_EQ(run("check").err,
            std::string("korureg: there is no table ") + path + " (" + file + ")\n");
  EXPECT_EQ(Testing::run(command("show", "../x")).exitCode, 2);
  { const Writer writer({{8, 0, 8, 1}, {9, 0, 8, 2}}); }
  std::string good(std::filesystem::file_size(file), '\0');
  std::ifstream(file, std::ios::binary)
      .read(good.data(), static_cast<std::streamsize>(good.size()));
  const auto flipped = [&](size_t at) {
    std::string content = good;
    content[at] = static_cast<char>(content[at] ^ 0x10);
    std::ofstream(file, std::ios::binary) << content;
  };
  flipped(4096 + 4096 * 8 + 16 * 4 + 5 * 16 + 8);
  EXPECT_EQ(run("check").out, "damaged: slot 5 holds something that was never stored\n");
  EXPECT_EQ(run("check").exitCode, 1);
  EXPECT_EQ(run("show").exitCode, 1);
  EXPECT_EQ(runJson("check")["damagedSlots"], json::array({5}));
  const std::pair<size_t, const char*> heads[] = {{0, " is no shared table"},
                                                  {90, ": the header is damaged"}};
  for (const auto& [at, message] : heads) {
    flipped(at);
    for (const char* name : {"check", "show", "watch"}) {
      EXPECT_EQ(run(name).err, "korureg: " + file + message + "\n");
      EXPECT_EQ(run(name).exitCode, 1);
    }
  }
}

TEST_F(ShadowCommand, WatchesThroughTheDeathAndReturnOfTheWriter) {
  Testing::Process watch(command("watch"));
  EXPECT_EQ(next(watch), "waiting: there is no such table yet");
  const std::string attached = "attached: the writer is there";
  {
    Writer writer({});
    EXPECT_EQ(next(watch), attached);
    writer.tell({0x40, 4, 4, 3});
    EXPECT_EQ(next(watch), "0x40  [7:4]  (none) -> 0x3");
    writer.kill();
  }
  EXPECT_EQ(next(watch), "detached: the writer is gone, its last contents go on being served");
  Writer writer({{0x40, 4, 4, 5}});
  EXPECT_THAT((std::vector{next(watch), next(watch)}),
              testing::UnorderedElementsAre(attached, "0x40  [7:4]  0x3 -> 0x5"));
  writer.tell({0x40, 4, 4, std::nullopt});
  EXPECT_EQ(next(watch), "0x40  [7:4]  0x5 -> (deleted)");
  watch.signal(SIGTERM);
  EXPECT_EQ(watch.wait().exitCode, 0);
  // The contents first; ended by the loss of whoever reads them.
  writer.tell({0x48, 0, 8, 9});
  Testing::Process second(jsonCommand("watch"));
  const json first = json::parse(second.line());
  EXPECT_EQ(first["value"], 9);
  EXPECT_FALSE(first.contains("old"));
  EXPECT_EQ(json::parse(second.line())["status"], "attached");
  second.stopReading();
  EXPECT_EQ(second.wait().err, "korureg: nobody reads standard output\n");
}

}  // namespace
