// korureg verify: what the agent has written, compared with what the hardware returns.

#include <fmt/format.h>

#include "korureg/AgentClient.h"
#include "korureg/Command.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

// Why the register need not return what was written; empty when it has to.
std::string whyNot(const ordered_json& reg) {
  const auto type = reg.value("type", "");
  if (type == "counter" || type == "sts" || type == "ctl") {
    return fmt::format("is of type {}", type);
  }
  return "";
}

// What a register that keeps `width` bits returns of a value.
uint64_t kept(uint64_t value, unsigned width) {
  return width >= 64 ? value : value & ((uint64_t{1} << width) - 1);
}

struct Finding {
  std::string name;
  std::string verdict;  // "same", "differs", "left out", "failed"
  std::string detail;
};

Finding verify(AgentClient& client, const std::string& chip, const ordered_json& reg) {
  const std::string name = reg.value("name", "");
  if (const std::string why = whyNot(reg); !why.empty()) return {name, "left out", why};
  const unsigned width = reg.value("width", 32u);
  const uint64_t written = kept(reg.value("written", uint64_t{0}), width);
  try {
    const uint64_t found = client.ask({{"op", "hw.read"}, {"chip", chip}, {"register", name}})
                               .value("value", uint64_t{0});
    // A transport may carry more bits than the register has.
    if (kept(found, width) == written) return {name, "same", hex(written, width)};
    return {name, "differs",
            fmt::format("{} was written, {} was read", hex(written, width), hex(found, width))};
  } catch (const Failure& e) {
    return {name, "failed", e.what()};
  }
}

int verifyChip(const AgentOptions& agent, const Options& options) {
  AgentClient client(agent);
  std::vector<Finding> findings;
  for (const auto& reg : client.ask({{"op", "chip.registers"}, {"chip", agent.chip}})) {
    findings.push_back(verify(client, agent.chip, reg));
  }
  int exitCode = done;
  ordered_json json = ordered_json::array();
  Table table({{"REGISTER"}, {"VERDICT"}, {"DETAIL"}});
  for (const auto& [name, verdict, detail] : findings) {
    if (verdict == "differs" || verdict == "failed") exitCode = failed;
    json.push_back({{"register", name}, {"verdict", verdict}, {"detail", detail}});
    table.add({name, verdict, detail});
  }
  if (options.json) {
    printJson(json);
  } else {
    table.print();
  }
  return exitCode;
}

}  // namespace

void addVerifyCommand(CLI::App& app, Options& options, int& exitCode) {
  CLI::App& command =
      addCommand(app, "verify", "Compare a chip's registers with what the agent has written.",
                 "korureg verify power0");
  auto agent = std::make_shared<AgentOptions>();
  command.add_option("CHIP", agent->chip, "the chip's name")->required();
  addAgentOptions(command, *agent);
  command.callback([agent, &options, &exitCode] { exitCode = verifyChip(*agent, options); });
}

}  // namespace korureg
