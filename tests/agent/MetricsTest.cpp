// The agent's figures: what they say, that they are in the format, and who is answered over HTTP.

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "board/chips/internal/FieldsDiffering.h"
#include "tests/agent/Chips.h"

namespace {

using Korud::Client;
using Korud::json;

// Samples by name and labels. Fails the test for what the format does not allow.
std::map<std::string, double> samplesIn(const std::string& text) {
  std::map<std::string, double> samples;
  std::set<std::string> families;
  std::string family;
  std::string kind;
  const std::string label = "[a-z_]+=\"(?:[^\"\\\\]|\\\\[\\\\n\"])*\"";
  const std::regex sample("([a-z_]+)(\\{" + label + "(?:," + label + ")*\\})? ([-+0-9.e]+)");
  const std::regex type("# TYPE ([a-z_]+) (counter|gauge|histogram)");
  const std::map<std::string, std::set<std::string>> suffixes = {
      {"counter", {"_total"}}, {"gauge", {""}}, {"histogram", {"_bucket", "_count", "_sum"}}};
  EXPECT_TRUE(text.ends_with("\n# EOF\n")) << text;
  std::istringstream in(text);
  std::smatch found;
  for (std::string line; std::getline(in, line) && line != "# EOF";) {
    if (line.starts_with("# HELP " + family + " ")) continue;
    if (std::regex_match(line, found, type)) {
      family = found.str(1);
      kind = found.str(2);
      EXPECT_TRUE(families.insert(family).second) << line;
      continue;
    }
    const bool isSample = std::regex_match(line, found, sample);
    EXPECT_TRUE(isSample) << line;
    if (!isSample) continue;
    const std::string name = found.str(1);
    EXPECT_TRUE(name.starts_with(family) && suffixes.at(kind).contains(name.substr(family.size())))
        << line << " in " << family;
    EXPECT_TRUE(samples.emplace(name + found.str(2), std::stod(found.str(3))).second) << line;
  }
  return samples;
}

// Classes hold those of all before them, and the last one all.
void expectWholeHistogram(const std::map<std::string, double>& samples, const std::string& name,
                          const std::string& label) {
  std::map<double, double> classes;
  const std::string begin = name + "_bucket{" + label + ",le=\"";
  for (const auto& [key, value] : samples) {
    if (key.starts_with(begin)) classes[std::stod(key.substr(begin.size()))] = value;
  }
  ASSERT_GT(classes.size(), 2u);
  double before = 0;
  for (const auto& [longest, value] : classes) {
    EXPECT_GE(value, before) << longest;
    before = value;
  }
  EXPECT_EQ(classes.rbegin()->first, std::numeric_limits<double>::infinity());
  EXPECT_EQ(before, samples.at(name + "_count{" + label + "}"));
}

// Says that once, and returns all that comes until the other side hangs up.
std::string exchange(const Orb::Descriptor& socket, const std::string& text) {
  ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
  std::string all;
  char piece[4096];
  pollfd wanted = {socket.get(), POLLIN, 0};
  while (::poll(&wanted, 1, 30000) == 1) {
    const ssize_t count = ::recv(socket.get(), piece, sizeof piece, 0);
    if (count <= 0) return all;
    all.append(piece, static_cast<size_t>(count));
  }
  throw std::runtime_error("no answer");
}

class Metrics : public Korud::Chips {
 protected:
  std::string place() const { return agent.file("metrics.sock"); }
  Orb::Descriptor connected() const {
    Orb::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = Korud::addressOf(place());
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    return socket;
  }
  std::string get(const std::string& request) const { return exchange(connected(), request); }
  static std::string body(const std::string& answer) {
    return answer.substr(answer.find("\r\n\r\n") + 4);
  }
};

TEST_F(Metrics, TellHowChipsDoInTheFormat) {
  agent.options = {"--metrics", place()};
  agent.write("board.toml", Korud::chip0 + "[[chip]]\nname = \"re\\\"\\\\\\u001bfused\"\n");
  Client client = agent.startAndConnect();
  const auto all = [&] { return samplesIn(client.result({{"op", "metrics"}})["text"]); };
  auto samples = all();
  EXPECT_EQ(samples["koru_chips{state=\"up\"}"], 1);
  EXPECT_EQ(samples["koru_chips{state=\"refused\"}"], 1);
  EXPECT_EQ(samples["koru_chips{state=\"failed\"}"], 0);
  EXPECT_EQ(samples["koru_chip_up{chip=\"chip0\"}"], 1);
  EXPECT_EQ(samples["koru_chip_up{chip=\"re\\\"\\\\\\\\x1bfused\"}"], 0);
  EXPECT_EQ(std::count_if(samples.begin(), samples.end(),
                          [](const auto& sample) {
                            return sample.first.find("x1bfused") != std::string::npos;
                          }),
            1);
  EXPECT_EQ(samples["koru_register_writes_total{chip=\"chip0\"}"], 2);
  EXPECT_EQ(samples["koru_clients"], 1);
  EXPECT_FALSE(samples.contains("koru_last_change_timestamp_seconds{chip=\"chip0\"}"));

  client.write("wide", "all", 7);
  client.hardware("WIDE");
  client.result({{"op", "chip.rewrite"}, {"chip", "chip0"}});
  samples = all();
  EXPECT_EQ(samples["koru_register_writes_total{chip=\"chip0\"}"], 5);
  EXPECT_EQ(samples["koru_register_reads_total{chip=\"chip0\"}"], 1);
  EXPECT_EQ(samples["koru_register_failures_total{chip=\"chip0\"}"], 0);
  EXPECT_EQ(samples["koru_chip_rewrites_total{chip=\"chip0\"}"], 2);
  EXPECT_EQ(samples["koru_register_access_seconds_count{transport=\"memory\"}"], 6);
  EXPECT_EQ(samples["koru_fields_differing{chip=\"chip0\"}"], 0);
  EXPECT_NEAR(samples["koru_last_change_timestamp_seconds{chip=\"chip0\"}"],
              static_cast<double>(::time(nullptr)), 30);
  expectWholeHistogram(samples, "koru_register_access_seconds", "transport=\"memory\"");
  EXPECT_EQ(samplesIn(body(get("GET /metrics HTTP/1.1\r\n\r\n"))).size(), samples.size());
}

TEST_F(Metrics, CountWhoReadsTheTables) {
  Client client = agent.startAndConnect();
  const auto readers = [&] {
    return samplesIn(
        client.result({{"op", "metrics"}})["text"])["koru_table_readers{chip=\"chip0\"}"];
  };
  EXPECT_EQ(readers(), 0);
  {
    Testing::Process watch({{KORUREG_PROGRAM, "shadow", "watch", Korud::config},
                            {"KORU_STATE_DIR=" + agent.file("")}});
    Korud::until([&] { return readers() == 1; });
    watch.signal(SIGTERM);
    watch.wait();
  }
  Korud::until([&] { return readers() == 0; });
}

TEST(FieldsDiffering, AreCountedAsTheyChange) {
  using namespace KoruRegFile;
  const Testing::StateDirectory state;
  const auto manager = OrbPool::entityManagerFactory();
  const auto group = manager->mountGroup();
  group->collectionDescriptionIs({"field", 10, false});
  group->mount("KoruRegFile::ShadowFieldsConfig", "config/chip0", OrbPool::mountWriter);
  group->mount("KoruRegFile::ShadowFieldsStatus", "status/chip0", OrbPool::mountWriter);
  const auto config =
      Orb::dynamic_pointer_cast<ShadowFieldsConfig>(manager->entity("config/chip0"));
  const auto status =
      Orb::dynamic_pointer_cast<ShadowFieldsStatus>(manager->entity("status/chip0"));
  const ShadowFieldKey a{1, 0, 8}, b{1, 8, 8}, c{2, 0, 8};
  config->fieldIs({a, 5});
  status->fieldIs({b, 5});
  const Board::FieldsDiffering differing(config, status);
  EXPECT_EQ(differing.count(), 2u);
  const std::pair<std::function<void()>, size_t> table[] = {
      {[&] { status->fieldIs({a, 5}); }, 1}, {[&] { config->fieldIs({a, 6}); }, 2},
      {[&] { config->fieldIs({a, 7}); }, 2}, {[&] { config->fieldIs({b, 5}); }, 1},
      {[&] { config->fieldIs({c, 0}); }, 1}, {[&] { config->fieldDel(a); }, 1},
      {[&] { status->fieldDel(a); }, 0},     {[&] { status->fieldIs({c, 1}); }, 1},
      {[&] { status->fieldDelAll(); }, 1}};
  for (size_t i = 0; i < std::size(table); ++i) {
    table[i].first();
    EXPECT_EQ(differing.count(), table[i].second) << i;
  }
}

TEST_F(Metrics, AreServedToWhoeverAsksForThem) {
  agent.options = {"--metrics", place()};
  agent.start();
  struct stat status;
  ASSERT_EQ(::stat(place().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
  const std::string whole = get("GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_THAT(whole, testing::StartsWith("HTTP/1.1 200 OK\r\nContent-Type: "
                                         "application/openmetrics-text; version=1.0.0"));
  EXPECT_THAT(whole, testing::HasSubstr(
                         "\r\nContent-Length: " + std::to_string(body(whole).size()) + "\r\n"));
  const std::pair<const char*, const char*> others[] = {
      {"GET /metrics?a=b HTTP/1.0\r\n\r\n", "HTTP/1.1 200 "},
      {"GET / HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
      {"GET /metricsx HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
      {"GET \r\n\r\n", "HTTP/1.1 404 "},
      {"POST /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405 "},
      {"\r\n\r\n", "HTTP/1.1 405 "}};
  for (const auto& [asked, begin] : others) {
    EXPECT_THAT(get(asked), testing::StartsWith(begin)) << asked;
  }
  EXPECT_EQ(get("GET /metrics HTTP/1.1\r\nA: " + std::string(20'000, 'x')), "");
  // Some who say nothing keep nobody from an answer.
  std::vector<Orb::Descriptor> silent;
  for (int i = 0; i < 40; ++i) silent.push_back(connected());
  EXPECT_THAT(get("GET /metrics HTTP/1.1\r\n\r\n"), testing::StartsWith("HTTP/1.1 200 "));
  silent.clear();
  Client client = agent.client();
  expectSeen(client);
  Korud::until([&] { return agent.waitsForEver(); });
  agent.stop(SIGTERM);
  EXPECT_NE(::stat(place().c_str(), &status), 0);
}

TEST_F(Metrics, AreServedToThisMachineOnly) {
  for (const char* wrong : {"127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "0.0.0.0:9750", "9750",
                            "localhost:9750", "127.0.0.1:80x", "[::]:9750"}) {
    agent.options = {"--metrics", wrong};
    EXPECT_EQ(Testing::run(agent.command()).exitCode, 1) << wrong;
  }
  const Orb::Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(probe.get(), generic, size), 0);
  ASSERT_EQ(::getsockname(probe.get(), generic, &size), 0);
  agent.options = {"--metrics", "127.0.0.1:" + std::to_string(ntohs(address.sin_port))};
  EXPECT_EQ(Testing::run(agent.command()).exitCode, 1) << "somebody has the port";
}

}  // namespace
