// korureg verify: what the agent has written, compared with what the hardware returns.

#include <fmt/format.h>

#include <algorithm>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;

struct Finding {
  std::string name;
  unsigned width;
  uint64_t mask;  // of the bits that a read has to return as they were written
  uint64_t written;
  std::optional<uint64_t> found;
  std::optional<uint64_t> before;  // found before it was written again
  std::string verdict;             // "same", "differs", "fixed", "left out", "failed"
  std::string why;                 // for the last two
};

std::string detailOf(const Finding& finding) {
  if (!finding.found) return finding.why;
  const std::string written = hex(finding.written, finding.width);
  const std::string found = hex(*finding.found, finding.width);
  if (finding.verdict == "fixed") {
    return fmt::format("{} was read, {} once it was written again",
                       hex(*finding.before, finding.width), found);
  }
  return finding.verdict == "same" ? found
                                   : fmt::format("{} was written, {} was read", written, found);
}

// Reads a register, and compares.
void look(AgentClient& client, const std::string& chip, Finding& finding) {
  try {
    finding.found =
        valueIn(client.ask({{"op", "hw.read"}, {"chip", chip}, {"register", finding.name}}));
    const bool isSame = ((*finding.found ^ finding.written) & finding.mask) == 0;
    finding.verdict = isSame ? "same" : "differs";
  } catch (const Refusal& e) {
    finding.verdict = "failed";
    finding.why = e.what();
  }
}

Finding verify(AgentClient& client, const std::string& chip, const ordered_json& reg) {
  Finding finding = {
      textAt(reg, "name"),
      static_cast<unsigned>(std::min<uint64_t>(numberAt(reg, "width").value_or(32), 32)),
      numberAt(reg, "verified").value_or(0),
      numberAt(reg, "written").value_or(0),
      std::nullopt,
      std::nullopt,
      "left out",
      textAt(reg, "why")};
  if (finding.mask != 0) look(client, chip, finding);
  return finding;
}

bool differs(const Finding& finding) { return finding.verdict == "differs"; }

// Has the registers that differ written again, and reads them again.
void fix(AgentClient& client, const std::string& chip, std::vector<Finding>& findings) {
  auto names = ordered_json::array();
  for (const Finding& finding : findings) {
    if (differs(finding)) names.push_back(finding.name);
  }
  if (names.empty()) return;
  client.ask({{"op", "chip.rewrite"}, {"chip", chip}, {"registers", names}});
  for (Finding& finding : findings) {
    if (!differs(finding)) continue;
    finding.before = finding.found;
    look(client, chip, finding);
    if (finding.verdict == "same") finding.verdict = "fixed";
  }
}

ordered_json toJson(const Finding& finding) {
  ordered_json json = {{"register", finding.name}, {"verdict", finding.verdict}};
  if (finding.mask != 0) {
    json["written"] = finding.written;
    json["verified"] = finding.mask;
  }
  if (finding.found) json["found"] = *finding.found;
  if (finding.before) json["found_before"] = *finding.before;
  json["detail"] = detailOf(finding);
  return json;
}

int verifyChip(const AgentArguments& arguments, const Options& options) {
  AgentClient client(arguments.agent);
  std::vector<Finding> findings;
  for (const auto& reg : listIn(client.ask(request("chip.registers", arguments)))) {
    findings.push_back(verify(client, arguments.chip, reg));
  }
  if (arguments.fix) fix(client, arguments.chip, findings);
  auto document = ordered_json::array();
  Table table({{"REGISTER"}, {"VERDICT"}, {"DETAIL"}});
  for (const Finding& finding : findings) {
    document.push_back(toJson(finding));
    table.add({finding.name, finding.verdict, detailOf(finding)});
  }
  options.json ? printJson(document) : table.print();
  const bool isBad = std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
    return differs(finding) || finding.verdict == "failed";
  });
  return isBad ? failed : done;
}

}  // namespace

void addVerifyCommand(Command app, Options& options) {
  addAgentCommand(app,
                  {"verify", "Compare a chip's registers with what the agent has written.",
                   "korureg verify power0", Take::chip, Take::fix, verifyChip},
                  options);
}

}  // namespace korureg
