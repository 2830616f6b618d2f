// korureg web, by whoever talks HTTP to it.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/agent/Chips.h"
#include "tests/system/FakeAgent.h"
#include "tests/system/Korureg.h"
#include "tools/korureg/web/Stream.h"

namespace {

using Korud::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A connection to the page; a machine may have more addresses than one.
class Visitor {
 public:
  Visitor(uint16_t port, const char* from) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, from, &address.sin_addr);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(::bind(socket_.get(), generic, sizeof address), 0);
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    address.sin_port = htons(port);
    EXPECT_EQ(::connect(socket_.get(), generic, sizeof address), 0);
  }
  void send(const std::string& text) const {
    ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
  }
  void endSending() const { ::shutdown(socket_.get(), SHUT_WR); }
  // All that comes until the text does, or the end. (Something comes at times for ever.)
  std::string until(const std::string& text = "\xff") {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (in_.find(text) == std::string::npos) {
      pollfd wanted = {socket_.get(), POLLIN, 0};
      if (::poll(&wanted, 1, 20000) <= 0 || std::chrono::steady_clock::now() > deadline) {
        return in_ + "(it does not come)";
      }
      char piece[4096];
      const ssize_t count = ::recv(socket_.get(), piece, sizeof piece, 0);
      if (count <= 0) break;
      in_.append(piece, static_cast<size_t>(count));
    }
    return std::exchange(in_, {});
  }

 private:
  Orb::Descriptor socket_;
  std::string in_;
};

struct Asked {
  std::string method = "POST";
  std::string path = "/ask";
  std::string body = R"({"op": "chip.list"})";  // which is answered
  std::string host = {};                        // the right one
  std::string origin = {};
  std::string token = {};
  std::string more = {};  // headers
};

class Web : public testing::Test {
 protected:
  void SetUp() override { agent.start(); }
  void open(const std::string& options = "") {
    web = std::make_unique<Testing::Process>(
        Korureg::command("web --listen 127.0.0.1:0 --state-dir " + agent.file("") + ' ' + options));
    address = web->line();
    ASSERT_THAT(address, StartsWith("http://127.0.0.1:"));
    host = address.substr(7, address.find("/?") - 7);
    token = address.substr(address.find('=') + 1);
  }
  Visitor visitor(const char* from = "127.0.0.1") const {
    return {static_cast<uint16_t>(std::stoi(host.substr(host.find(':') + 1))), from};
  }
  std::string request(const Asked& asked) const {
    const std::string at = asked.host.empty() ? host : asked.host;
    const std::string origin = asked.origin.empty() ? "http://" + host : asked.origin;
    std::string text = asked.method + ' ' + asked.path + " HTTP/1.1\r\nHost: " + at + "\r\n";
    if (origin != "none") text += "Origin: " + origin + "\r\n";
    text += "X-Koru-Token: " + (asked.token.empty() ? token : asked.token) + "\r\n" + asked.more;
    if (asked.method != "GET") {
      text += "Content-Length: " + std::to_string(asked.body.size()) + "\r\n";
    }
    return text + "\r\n" + (asked.method == "GET" ? "" : asked.body);
  }
  std::string answer(Asked asked, const char* from = "127.0.0.1",
                     const std::string& until = "\xff") const {
    asked.more += "Connection: close\r\n";
    Visitor one = visitor(from);
    one.send(request(asked));
    return one.until(until);
  }
  // What the server answers, without its head.
  json ask(const json& body, const std::string& path = "/ask") const {
    const std::string all = answer({.path = path, .body = body.dump()});
    return json::parse(all.substr(all.find("\r\n\r\n") + 4));
  }
  std::string why(const json& body, const std::string& path = "/ask") const {
    const json said = ask(body, path);
    return said.value("ok", false) ? "done" : said["error"].value("message", "");
  }

  // The system call that a program waits in that the test has started.
  static std::string callOf(const std::string& name) {
    const std::string self = std::to_string(::getpid());
    std::ifstream children("/proc/self/task/" + self + "/children");
    for (std::string child; children >> child;) {
      std::string program, call;
      std::ifstream("/proc/" + child + "/comm") >> program;
      if (program != name) continue;
      std::getline(std::ifstream("/proc/" + child + "/syscall"), call);
      return call;
    }
    return "";
  }

  Korud::Agent agent{
      Korud::replaced(Korud::chip0, "register_map", "read_changes = [\"STATUS\"]\nregister_map") +
      "[chip.status.STATUS]\nseen = { bits = 0 }\n"};
  std::unique_ptr<Testing::Process> web;
  std::string address;
  std::string host;
  std::string token;
};

TEST_F(Web, LetsInWhoeverHasTheTokenUnderItsOwnName) {
  open();
  const std::string port = host.substr(host.find(':'));
  const std::string other = std::string(31, '0') + (token.back() == '0' ? "1" : "0");
  const std::pair<Asked, const char*> table[] = {
      {{}, "200"},
      {{.method = "GET", .path = "/", .origin = "none"}, "403"},
      {{.method = "GET", .path = "/?token=" + token, .origin = "none", .token = "x"}, "200"},
      {{.path = "/ask?token=" + token, .token = "x"}, "403"},
      {{.host = "localhost" + port, .origin = "http://localhost" + port}, "200"},
      {{.method = "GET", .path = "/?token=" + other}, "403"},
      {{.method = "GET", .path = "/?token=&token=" + other}, "403"},
      {{.method = "GET", .path = "/?token=", .origin = "none"}, "403"},
      {{.token = token.substr(1)}, "403"},
      {{.token = (token[0] == '0' ? "1" : "0") + token.substr(1)}, "403"},
      {{.host = "evil.example" + port}, "403"},
      {{.host = "evil.example" + port, .origin = "http://evil.example" + port}, "403"},
      {{.host = "127.0.0.2" + port, .origin = "http://127.0.0.2" + port}, "403"},
      {{.host = "127.0.0.1"}, "403"},
      {{.host = "127.0.0.1:1", .origin = "http://127.0.0.1:1"}, "403"},
      {{.origin = "http://evil.example"}, "403"},
      {{.origin = "https://" + host}, "403"},
      {{.origin = "null"}, "403"},
      {{.origin = "none"}, "403"},
      {{.path = "/events", .origin = "none"}, "403"},
      {{.method = "GET", .path = "/?token=" + token, .origin = "http://evil.example"}, "403"},
      {{.method = "GET", .path = "/ask?token=" + token}, "405"},
      {{.method = "PUT"}, "405"},
      {{.path = "/"}, "405"},
      {{.path = "/../etc/passwd"}, "404"},
      {{.path = "/ask/"}, "404"},
      {{.body = "[1]"}, "400"},
      {{.body = "{"}, "400"},
      {{.body = std::string(40, '[')}, "400"},
      {{.body = R"({"op": 1})"}, "400"},
      {{.body = "{\"op\":\"" + std::string(65536, 'x') + "\"}"}, "413"},
      {{.more = "X-Long: " + std::string(40000, 'x') + "\r\n"}, "431"},
  };
  for (auto [asked, status] : table) {
    SCOPED_TRACE(asked.method + ' ' + asked.path + " host " + asked.host + " origin " +
                 asked.origin + " body " + asked.body.substr(0, 50));
    // (What is let in by mistake may go on for ever.)
    EXPECT_THAT(answer(asked, "127.0.0.1", "\r\n"), StartsWith(std::string("HTTP/1.1 ") + status));
  }
  // Without a length there is no end; what is said of it is not to be believed.
  const std::string head = "POST /ask HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
                           "\r\nX-Koru-Token: " + token + "\r\n";
  for (const char* rest :
       {"\r\n", "Transfer-Encoding: chunked\r\n\r\n", "Content-Length: x\r\n\r\n"}) {
    Visitor one = visitor();
    one.send(head + rest);
    one.endSending();
    EXPECT_THAT(one.until(),
                testing::AnyOf(StartsWith("HTTP/1.1 411"), StartsWith("HTTP/1.1 400")));
  }
}

TEST_F(Web, HasThePageToItself) {
  open();
  const Asked page = {.method = "GET", .path = "/?token=" + token, .origin = "none"};
  const std::string first = answer(page);
  EXPECT_THAT(first,
              AllOf(HasSubstr("Cache-Control: no-store"), HasSubstr("nosniff"),
                    HasSubstr("Referrer-Policy: no-referrer"), HasSubstr("frame-ancestors 'none'"),
                    HasSubstr("default-src 'none'"), Not(HasSubstr("unsafe-inline")),
                    Not(HasSubstr("src=")), Not(HasSubstr("https:")), Not(HasSubstr("innerHTML"))));
  const auto nonceIn = [](const std::string& text) {
    return text.substr(text.find("script-src 'nonce-") + 18, 32);
  };
  const std::string nonce = nonceIn(first);
  EXPECT_THAT(first, HasSubstr("<script nonce=\"" + nonce + "\">"));
  EXPECT_NE(nonceIn(answer(page)), nonce);
}

TEST_F(Web, ChangesNothingUnlessItMay) {
  const json write = {{"op", "fields.write"},
                      {"chip", "chip0"},
                      {"fields", {{{"register", "ctrl"}, {"field", "mode"}, {"text", "9"}}}}};
  json plan = write, alike = write;
  plan["dry_run"] = true;
  alike["dry_run"] = 1;
  const json read = {{"op", "hw.read"}, {"chip", "chip0"}, {"register", "CTRL"}};
  json changing = read, meant = read;
  changing["register"] = meant["register"] = "STATUS";
  meant["confirmed"] = true;
  const char* const mayNot = "korureg web was started without --write";
  open();
  const std::pair<json, std::string> table[] = {
      {plan, "done"},
      {write, mayNot},
      {alike, "the request makes no sense"},
      {read, "done"},
      {changing, std::string("reading it changes the chip, and ") + mayNot},
      {meant, std::string("reading it changes the chip, and ") + mayNot},
      {{{"op", "hw.write"}, {"chip", "chip0"}, {"register", "CTRL"}, {"value", 1}, {"force", true}},
       "the page may not ask for 'hw.write'"},
      {{{"op", "chip.rewrite"}, {"chip", "chip0"}}, "the page may not ask for 'chip.rewrite'"},
      {{{"op", "field.read"}, {"chip", "chip0"}, {"register", "STATUS"}, {"field", "seen"}},
       "the page may not ask for 'field.read'"},
  };
  for (const auto& [body, said] : table) EXPECT_EQ(why(body), said) << body;
  EXPECT_EQ(agent.client().hardware("CTRL"), 0x30);
  open("--write");
  EXPECT_EQ(why(changing), "reading it changes the chip");
  EXPECT_EQ(why(meant), "done");
  EXPECT_EQ(why(write), "done");
  EXPECT_EQ(agent.client().hardware("CTRL"), 0x90);
  // Who it was.
  const json newest = ask({{"chip", "chip0"}}, "/history")["result"][0];
  EXPECT_EQ(newest["field"], "mode");
  EXPECT_EQ(newest["by"]["process"], "korureg-web");
  EXPECT_EQ(why({{"chip", "../chip0"}}, "/history"), "there is no history of '../chip0'");
}

TEST_F(Web, ReadsAFieldAgainAndAgain) {
  open();
  const json mode = {{"chip", "chip0"}, {"register", "ctrl"}, {"field", "mode"}, {"every", 1}};
  json points;
  Korud::until([&] { return (points = ask(mode, "/plot")["result"]["points"]).size() >= 2; });
  EXPECT_EQ(points[0][1], 3);
  EXPECT_GE(points[1][0].get<int64_t>() - points[0][0].get<int64_t>(), 40) << "it has its limit";
  EXPECT_THAT(answer({.path = "/plot.csv", .body = mode.dump()}),
              testing::ContainsRegex("time_ms,raw,number\n[0-9]+,3,\n"));
  json seen = mode;
  seen["register"] = "STATUS";
  seen["field"] = "seen";
  Korud::until([&] { return !ask(seen, "/plot")["result"]["why"].get<std::string>().empty(); });
  EXPECT_EQ(ask(seen, "/plot")["result"]["why"], "reading it changes the chip");
  EXPECT_EQ(ask(seen, "/plot")["result"]["points"], json::array());
  for (int i = 0; i < 6; ++i) {
    json other = mode;
    other["field"] = std::to_string(i);
    EXPECT_EQ(why(other, "/plot"), "done");
  }
  json last = mode;
  last["field"] = "x";
  EXPECT_EQ(why(last, "/plot"), "8 fields are read already; end one of them");
  ask(seen, "/forget");
  EXPECT_EQ(why(last, "/plot"), "done");
}

// Whoever is slow, silent or many.
TEST_F(Web, HoldsUpNobodyForAnybody) {
  open();
  std::vector<Visitor> many;
  for (int i = 0; i < 40; ++i) many.push_back(visitor("127.0.0.3"));
  many.push_back(visitor());  // half of a request, and no more
  many.back().send(request({}).substr(0, 60));
  many.push_back(visitor());  // the end in the middle
  many.back().send(request({}).substr(0, 60));
  many.back().endSending();
  // The first address has had its share.
  Visitor refused = visitor("127.0.0.3");
  refused.send(request({.method = "GET", .path = "/"}));
  EXPECT_EQ(refused.until(), "");
  Visitor silent = visitor("127.0.0.4");  // never reads what happens
  silent.send(request({.path = "/events"}));
  Visitor listener = visitor("127.0.0.5");
  listener.send(request({.path = "/events"}));
  EXPECT_THAT(listener.until("\n\n\r\n"), HasSubstr("\"agent\":true"));
  EXPECT_THAT(answer({}, "127.0.0.6"), HasSubstr("chip0"));
  // (Who listens is known to the agent a little later.)
  agent.client().write("ctrl", "mode", 5);
  Korud::until([&] {
    agent.client().write("ctrl", "mode", 6);
    agent.client().write("ctrl", "mode", 7);
    return listener.until("\n\n\r\n").find("\"writes\":{\"chip0\":") != std::string::npos;
  });
  // Who has not asked within some time has to go.
  for (Visitor& each : many) EXPECT_EQ(each.until(), "");
}

TEST(WebStream, KeepsWhatABrowserDoesNotReadUpToALimit) {
  using korureg::web::Stream;
  const auto message = [](const std::string& text) {
    return std::make_shared<const std::string>(text);
  };
  Stream stream(message("missed;"));
  char taken[16] = {};
  stream.say(message("first;"));
  EXPECT_EQ(stream.take(taken, 2), 2u);
  for (size_t i = 0; i < Stream::most / 1000 + 1; ++i) stream.say(message(std::string(1000, 'x')));
  stream.say(message("last;"));
  std::string rest;
  while (const size_t count = stream.take(taken, sizeof taken)) rest.append(taken, count);
  EXPECT_THAT(rest, AllOf(StartsWith("rst;missed;"), testing::EndsWith("last;")));
  EXPECT_LT(rest.size(), 3000u);
}

TEST_F(Web, OutlivesTheAgent) {
  open();
  Visitor listener = visitor();
  listener.send(request({.path = "/events"}));
  EXPECT_THAT(listener.until("\"write\":false"), HasSubstr("\"agent\":true"));
  agent.stop(SIGKILL);
  EXPECT_THAT(listener.until("\"agent\":false"), HasSubstr("\"agent\":false"));
  EXPECT_THAT(why({{"op", "chip.list"}}), HasSubstr("there is no agent at"));
  agent.start();
  EXPECT_THAT(listener.until("\"agent\":true"), HasSubstr("\"agent\":true"));
  EXPECT_EQ(why({{"op", "chip.list"}}), "done");
}

// What answers may be no agent.
TEST_F(Web, OutlivesAnswersThatMakeNoSense) {
  const std::string place = agent.file("fake.sock");
  const FakeAgent fake(place, {{"hw.list", R"({"id": 1, "ok": true, "result": 5})"},
                               {"chip.list", R"({"id": "x"})"},
                               {"field.list", "[]"},
                               {"fields.write", R"({"error": {"message": "go away"}})"}});
  open("--socket " + place);
  const json read = {{"op", "hw.read"}, {"chip", "chip0"}, {"register", "CTRL"}};
  EXPECT_EQ(why(read), "the agent does not say what reading it changes");
  for (const char* op : {"chip.list", "field.list"}) {
    EXPECT_EQ(why({{"op", op}}), "the agent's answer makes no sense");
  }
  EXPECT_EQ(why({{"op", "fields.write"}, {"dry_run", true}}), "go away");
  web.reset();  // or the other would wait for it
}

// Without a page that is looked at, nobody is woken: it waits without a limit, and the agent does.
TEST_F(Web, RestsWhenNobodyLooks) {
  open();
  EXPECT_EQ(why({{"op", "chip.list"}}), "done");
  {
    Visitor listener = visitor();
    listener.send(request({.path = "/events"}));
    listener.until("\"agent\":true");
  }
  Korud::until([&] { return callOf("korureg-web").find("0xffffffff") != std::string::npos; });
  EXPECT_TRUE(agent.waitsForEver());
}

TEST_F(Web, SaysWhyItCannotBe) {
  open();
  const std::string state = " --state-dir " + agent.file("");
  const std::pair<std::string, std::string> table[] = {
      {"--listen 127.0.0.1" + state, "'127.0.0.1' is no address to listen on"},
      {"--listen 127.0.0.1:65536" + state, "'127.0.0.1:65536' is no address to listen on"},
      {"--listen example.org:80" + state, "'example.org:80' is no address to listen on"},
      {"--listen ::1:80" + state, "'::1:80' is no address to listen on"},
      {"--listen 192.0.2.1:8017" + state, "cannot listen on 192.0.2.1:8017: Cannot assign"},
      {"--listen " + host + state, "Address already in use; something else listens there"},
      {"--socket /nowhere", "there is no agent at /nowhere: No such file or directory"},
  };
  for (const auto& [options, said] : table) {
    const auto outcome = Testing::run(Korureg::command("web " + options));
    EXPECT_NE(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err, AllOf(StartsWith("korureg: "), HasSubstr(said)));
  }
}

}  // namespace
