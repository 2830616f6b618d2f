// The agent as its clients see it: whatever they send, it goes on, for them and for the others.

#include <gmock/gmock.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <list>

#include "board/service/Server.h"
#include "testing/Sanitizers.h"
#include "tests/agent/Korud.h"

const char* const Korud::korudProgram = KORUD_PROGRAM;

namespace {

using Korud::Client;
using Korud::json;

class Socket : public testing::Test {
 protected:
  void SetUp() override { agent.start(); }
  static json field(const char* op, const json& value = {}) {
    return Korud::request(op, "chip0", "ctrl", "mode", value);
  }
  // It still does what it should.
  void expectSane(Client& client) {
    EXPECT_EQ(client.result(field("field.write", 5))["value"], 5);
    EXPECT_EQ(client.result(field("field.read"))["value"], 5);
  }
  Korud::Agent agent;
};

TEST_F(Socket, RegistersAndEntitiesAreDescribed) {
  Client client = agent.client();
  client.write("ctrl", "en", 1);
  const json registers = client.result({{"op", "chip.registers"}, {"chip", "chip0"}});
  EXPECT_EQ(registers.size(), 2u);
  EXPECT_EQ(registers[0]["wanted"], 0x31);
  EXPECT_EQ(registers[0]["written"], 0x31);
  const json ready = {{"op", "entity.get"},
                      {"type", "KoruRegFile::LogicalChip"},
                      {"name", "chip0"},
                      {"attribute", "ready"}};
  EXPECT_EQ(client.result(ready), json({{"ready", "True"}}));
}

TEST_F(Socket, WrongMessagesGetAnAnswer) {
  const std::pair<std::string, const char*> table[] = {
      {"nonsense", "badRequest"},
      {"[1]", "badRequest"},
      {"{}", "badRequest"},
      {R"({"op": 5})", "badRequest"},
      {R"({"op": "no.such"})", "unknownOperation"},
      {R"({"op": "field.read"})", "badRequest"},
      {R"({"op": "field.read", "chip": "no", "register": "r", "field": "f"})", "noSuchChip"},
      {R"({"op": "field.read", "chip": "chip0", "register": "r", "field": "f"})", "noSuchRegister"},
      {R"({"op": "field.read", "chip": "chip0", "register": "ctrl", "field": ""})", "noSuchField"},
      {R"({"op": "hw.read", "chip": "chip0", "register": "no"})", "noSuchRegister"},
      {R"({"op": "hw.write", "chip": "chip0", "register": "CTRL", "value": 1})", "refused"},
      {R"({"op": "entity.get", "type": "a", "name": "b"})", "noSuchEntity"},
      {R"({"op": "subscribe", "chip": 1})", "badRequest"},
      {R"({"op": "subscribe", "chip": "no"})", "noSuchChip"},
      {R"({"op": "chip.list", "id": )" + std::string(40, '[') + std::string(40, ']') + "}",
       "badRequest"},
      {field("field.write", -1).dump(), "badValue"},
      {field("field.write", 16).dump(), "badValue"},
      {field("field.write", 1.5).dump(), "badValue"},
      {field("field.write", "0x").dump(), "badValue"},
      {field("field.write", json::array({1})).dump(), "badValue"},
      {R"({"op": "register.write", "chip": "chip0", "register": "ctrl", "value": 2})", "badValue"},
      {R"({"op": "register.write", "chip": "chip0", "register": "ctrl", "value": 18446744073709551616})",
       "badValue"},
      {std::string(30000, '['), "badRequest"},
      {"{\"op\": \"\xff\xfe\"}", "badRequest"},
      {std::string(70000, 'x'), "badRequest"},
      {std::string(1 << 20, ' '), "badRequest"},
  };
  Client client = agent.client();
  for (const auto& [message, kind] : table) {
    SCOPED_TRACE(message.substr(0, 100));
    const json answer = client.ask(message);
    EXPECT_FALSE(answer["ok"]);
    EXPECT_EQ(answer["error"]["kind"], kind) << answer;
    EXPECT_NE(answer["error"]["message"], "");
  }
  expectSane(client);
}

TEST_F(Socket, HalfALineHoldsUpNobody) {
  Client slow = agent.client();
  slow.send(R"({"id": [7], "op": "field.)");
  Client other = agent.client();
  expectSane(other);
  slow.send("read\", \"chip\": \"chip0\", \"register\": \"ctrl\", \"field\": \"mode\"}\n\n{\"op\"");
  EXPECT_EQ(json::parse(slow.line()),
            json({{"id", {7}}, {"ok", true}, {"result", {{"value", 5}}}}));
  { const Client gone = std::move(slow); }
  expectSane(other);
}

TEST_F(Socket, ManyClientsAreServedAndOneMoreIsTold) {
  std::list<Client> clients;
  for (size_t i = 0; i < Board::Server::mostClients; ++i) clients.push_back(agent.client());
  for (Client& client : clients) client.send(field("field.read").dump() + "\n");
  for (Client& client : clients) EXPECT_TRUE(json::parse(client.line())["ok"]);
  for (int i = 0; i < 2; ++i) {
    Client more = agent.client();
    EXPECT_EQ(json::parse(more.line())["error"],
              json({{"kind", "refused"}, {"message", "512 clients are served already"}}));
    EXPECT_THROW(more.line(), std::runtime_error);
  }
  clients.pop_back();
  clients.front().ask(field("field.read"));
  expectSane(clients.emplace_back(agent.client()));
  // Told once.
  const std::string traces = agent.stop(SIGTERM).err;
  const size_t told = traces.find("a client was refused");
  EXPECT_NE(told, std::string::npos);
  EXPECT_EQ(traces.find("a client was refused", told + 1), std::string::npos);
}

TEST_F(Socket, AClientThatSendsNoMoreGetsAllItsAnswers) {
  Client client = agent.client();
  constexpr int requests = 1000;
  std::string all;
  for (int i = 0; i < requests; ++i) all += R"({"op": "stats", "id": )" + std::to_string(i) + "}\n";
  client.send(all);
  client.endSending();
  // The end is seen while most of the answers cannot be sent yet.
  Client other = agent.client();
  for (int turn = 0; turn < 3; ++turn) expectSane(other);
  for (int i = 0; i < requests; ++i) ASSERT_EQ(json::parse(client.line())["id"], i);
  EXPECT_THROW(client.line(), std::runtime_error);
}

TEST_F(Socket, AClientThatNeverReadsIsDropped) {
  Client deaf = agent.client();
  deaf.ask(json({{"op", "subscribe"}}));
  Client other = agent.client();
  const long before = agent.status("VmRSS");
  for (uint32_t i = 1; i <= 60000; ++i) other.write("wide", "all", i);
  if (!Testing::sanitized) {
    EXPECT_LT(agent.status("VmRSS") - before, 12000);
  }
  // What was sent before it was dropped can still be read; the end comes.
  EXPECT_THROW(while (true) deaf.line(), std::runtime_error);
  expectSane(other);
}

TEST_F(Socket, SubscribersHearOfEveryChange) {
  Client listener = agent.client();
  listener.ask(json({{"op", "subscribe"}, {"chip", "chip0"}}));
  Client other = agent.client();
  other.result(field("field.write", 7));
  const auto event =
      R"({"event": "field", "chip": "chip0", "register": "ctrl", "field": "mode", "value": 7})";
  EXPECT_EQ(json::parse(listener.line()), json::parse(event));
  agent.write("board.toml", "chip = []\n");
  const json gone = json::parse(listener.line());
  EXPECT_EQ(gone["chip"], json({{"name", "chip0"}, {"state", "gone"}}));
  EXPECT_EQ(other.ask(field("field.read"))["error"]["kind"], "noSuchChip");
  listener.ask(json({{"op", "unsubscribe"}}));
}

TEST_F(Socket, MemoryStaysAndNothingIsLeftToWakeItWhenNobodyAsks) {
  Client client = agent.client();
  const auto writeMany = [&](uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) client.ask(field("field.write", i % 16));
  };
  writeMany(2000);
  const long before = agent.status("VmRSS");
  // (A sanitizer keeps memory that was given back.)
  writeMany(Testing::sanitized ? 1000 : 100000);
  if (!Testing::sanitized) {
    EXPECT_LT(agent.status("VmRSS") - before, 256);
  }
  Korud::until([&] { return agent.waitsForEver(); });
}

TEST(Korud, EndsCleanlyAndAlone) {
  Korud::Agent agent;
  agent.write("korud.lock", "");
  std::filesystem::permissions(agent.file("korud.lock"), std::filesystem::perms(0644));
  agent.start();
  // Whoever may open it could lock it.
  EXPECT_EQ(std::filesystem::status(agent.file("korud.lock")).permissions(),
            std::filesystem::perms(0600));
  const auto second = Testing::run(agent.command());
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.err, testing::HasSubstr("another agent uses"));
  EXPECT_THAT(second.err, testing::HasSubstr("process " + std::to_string(agent.pid())));
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(agent.file("korud.sock")));
  agent.start();
  // What has taken its socket's place stays.
  std::filesystem::remove(agent.file("korud.sock"));
  agent.write("korud.sock", "mine");
  EXPECT_EQ(agent.stop(SIGINT).exitCode, 0);
  EXPECT_TRUE(std::filesystem::exists(agent.file("korud.sock")));
}

// What lies where it is to listen is left as it is.
TEST(Korud, TakesNobodysPlace) {
  Korud::Agent agent;
  const std::string place = agent.file("place");
  agent.options = {"--socket", place};
  const auto refusal = [&] {
    const auto outcome = Testing::run(agent.command());
    EXPECT_EQ(outcome.exitCode, 1);
    return outcome.err;
  };
  agent.write("place", "mine");
  EXPECT_THAT(refusal(), testing::HasSubstr("cannot listen at " + place + ": it is no socket"));
  EXPECT_EQ(Korud::linesOf(std::ifstream(place)), std::vector<std::string>({"mine"}));
  std::filesystem::remove(place);
  // Somebody who is too busy to take a client.
  const Orb::Descriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un address = Korud::addressOf(place);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  const Client first(place);
  EXPECT_THAT(refusal(), testing::HasSubstr("somebody does already"));
  EXPECT_TRUE(std::filesystem::is_socket(place));
}

TEST(Korud, TracesIntoNoFileOfItsOwn) {
  Korud::Agent agent;
  agent.wrapper = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&-"};
  Client client = agent.startAndConnect();
  agent.write("board.toml", "[[chip]\n");
  for (int turn = 0; turn < 2; ++turn) client.chip("chip0");
  EXPECT_EQ(std::filesystem::file_size(agent.file("korud.lock")), 0u);
  EXPECT_EQ(std::filesystem::status(agent.file("korud.lock")).permissions(),
            std::filesystem::perms(0600));
  agent.stop(SIGTERM);
}

TEST(Korud, GivesTheGroupWhatItMakes) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives groups away";
  Korud::Agent agent;
  agent.environment = {"KORU_STATE_GROUP=daemon"};
  agent.directory = "made/deep";
  agent.start();
  const std::string tables = "/KoruRegFile/shadowFieldsConfig";
  for (const std::string& name :
       {std::string(), std::string("/korud.sock"), std::string("/KoruRegFile"), tables,
        tables + "/chip0", tables + "/chip0.sock"}) {
    struct stat status = {};
    ASSERT_EQ(::stat(agent.file("made/deep" + name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_gid, ::getgrnam("daemon")->gr_gid) << name;
    EXPECT_EQ(status.st_mode & 0007, 0u) << name;
  }
  EXPECT_EQ(std::filesystem::status(agent.file("made/deep")).permissions(),
            std::filesystem::perms(0750));
  EXPECT_EQ(agent.stop(SIGTERM).exitCode, 0);
}

TEST(Korud, SaysWhatIsWrongWithItsFileOrItsArguments) {
  Korud::Agent agent(Korud::chip0 + "[chip.logical.extra]\nx = { to = \"NO.x\" }\n");
  auto check = agent.command();
  check.argv.push_back("--check");
  const auto found = Testing::run(check);
  EXPECT_EQ(found.exitCode, 1);
  EXPECT_EQ(found.out, agent.file("board.toml") +
                           ":16: chip 'chip0': field extra.x stands for NO.x, which is no physical "
                           "field here\n");
  EXPECT_FALSE(std::filesystem::exists(agent.file("korud.lock")));
  agent.write("board.toml", "[[chip]\n");
  EXPECT_EQ(Testing::run(agent.command()).exitCode, 1);
  EXPECT_EQ(Testing::run({{KORUD_PROGRAM, "--conifg", "x"}}).exitCode, 2);
  const auto missing = Testing::run({{KORUD_PROGRAM, "--check", "--config", "/no/such.toml"}});
  EXPECT_EQ(missing.err, "korud: /no/such.toml: there is no such file\n");
}

}  // namespace
