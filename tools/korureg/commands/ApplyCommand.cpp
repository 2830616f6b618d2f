// korureg apply: a plan of field values, shown and then written.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "korureg/AgentAnswer.h"
#include "korureg/AgentCommand.h"
#include "korureg/Assignment.h"
#include "korureg/FieldChanges.h"
#include "korureg/MapPlace.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

using nlohmann::ordered_json;
using Answers = std::vector<std::pair<std::string, ordered_json>>;  // by chip

// The steps about one chip.
struct ChipPlan {
  std::string chip;
  std::vector<const Step*> steps;
};

// In the order in which the plan names the chips.
std::vector<ChipPlan> byChip(const std::vector<Step>& steps) {
  std::vector<ChipPlan> plans;
  for (const Step& step : steps) {
    auto found = std::find_if(plans.begin(), plans.end(),
                              [&](const ChipPlan& plan) { return plan.chip == step.chip; });
    if (found == plans.end()) found = plans.insert(plans.end(), {step.chip, {}});
    found->steps.push_back(&step);
  }
  return plans;
}

ordered_json requestOf(const std::string& chip, const std::vector<const Step*>& steps,
                       const AgentArguments& arguments, bool isDry) {
  ordered_json asking = {{"op", "fields.write"}, {"chip", chip}, {"fields", ordered_json::array()}};
  for (const Step* step : steps) {
    asking["fields"].push_back(toJson(step->assignment, arguments.raw));
  }
  if (isDry) asking["dry_run"] = true;
  return asking;
}

// What the plan would change. A step that cannot be is looked for by itself, so that its line can
// be told.
ordered_json dryRun(AgentClient& client, const ChipPlan& plan, const AgentArguments& arguments) {
  try {
    return client.ask(requestOf(plan.chip, plan.steps, arguments, true));
  } catch (const UsageError&) {
    for (const Step* step : plan.steps) {
      try {
        client.ask(requestOf(plan.chip, {step}, arguments, true));
      } catch (const UsageError& e) {
        throw UsageError(fmt::format("{}: {}", mapPlace(arguments.file, step->line, 0), e.what()));
      }
    }
    throw;
  }
}

bool isConfirmed() {
  std::fputs("write this? [y/N] ", stdout);
  std::fflush(stdout);
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "yes";
}

void requireConsent(const AgentArguments& arguments, const Options& options) {
  const bool mayAsk = !options.json && ::isatty(STDIN_FILENO);
  if (arguments.yes || (mayAsk && isConfirmed())) return;
  throw Failure("nothing was written; --yes writes it");
}

ordered_json documentOf(const Answers& answers, bool isWritten) {
  auto document = ordered_json::array();
  for (const auto& [chip, answer] : answers) {
    ordered_json entry = {{"chip", chip}, {"written", isWritten}};
    entry.update(answer);
    document.push_back(std::move(entry));
  }
  return document;
}

int apply(const AgentArguments& arguments, const Options& options) {
  const std::vector<Step> steps = readPlan(arguments.file);
  const std::vector<ChipPlan> plans = byChip(steps);
  AgentClient client(arguments.agent);
  Answers answers;
  for (const ChipPlan& plan : plans) {
    answers.emplace_back(plan.chip, dryRun(client, plan, arguments));
  }
  const bool isChange = std::any_of(answers.begin(), answers.end(), [](const auto& answer) {
    return changesAnything(answer.second);
  });
  if (!options.json) printChanges(answers, arguments.raw);
  if (options.json && !(isChange && arguments.yes)) printJson(documentOf(answers, false));
  if (!isChange) return done;
  requireConsent(arguments, options);
  for (size_t i = 0; i < plans.size(); ++i) {
    try {
      answers[i].second = client.ask(requestOf(plans[i].chip, plans[i].steps, arguments, false));
    } catch (const Failure& e) {
      throw Failure(
          fmt::format("{} (of {} chips, {} had been written before)", e.what(), plans.size(), i));
    }
  }
  if (options.json) printJson(documentOf(answers, true));
  return done;
}

}  // namespace

void addApplyCommand(Command app, Options& options) {
  addAgentCommand(
      app,
      {"apply", "Show what a plan of field values changes, and write it.",
       "korureg apply examples/board.plan --yes", Take::file, Take::yes | Take::raw, apply},
      options);
}

}  // namespace korureg
