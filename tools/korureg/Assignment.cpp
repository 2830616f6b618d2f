#include "korureg/Assignment.h"

#include <fmt/format.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <tuple>

#include "korureg/Command.h"
#include "korureg/MapPlace.h"

namespace korureg {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// What stands before a comment: a '#' at the beginning or behind a blank.
std::string_view withoutComment(std::string_view line) {
  for (size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || blanks.find(line[at - 1]) != std::string_view::npos) return line.substr(0, at);
  }
  return line;
}

Step parseStep(size_t number, std::string_view text) {
  const size_t end = text.find_first_of(blanks);
  if (end == std::string_view::npos) {
    throw UsageError(fmt::format("'{}' is no step (write CHIP REGISTER.FIELD = VALUE)", text));
  }
  return {number, std::string(text.substr(0, end)), parseAssignment(text.substr(end))};
}

std::vector<Step> parsePlan(std::istream& in, size_t& number) {
  std::vector<Step> steps;
  std::map<std::tuple<std::string, std::string, std::string>, size_t> lines;
  for (std::string line; std::getline(in, line);) {
    ++number;
    // Who writes a file line by line ends each of them.
    if (in.eof()) throw UsageError("the last line has no end; is the file whole?");
    const std::string_view text = trimmed(withoutComment(line));
    if (text.empty()) continue;
    steps.push_back(parseStep(number, text));
    const auto& [reg, field] = steps.back().assignment.name;
    const auto [known, isNew] = lines.try_emplace({steps.back().chip, reg, field}, number);
    if (!isNew) {
      throw UsageError(fmt::format("{}.{} is set in line {} already", reg, field, known->second));
    }
  }
  return steps;
}

}  // namespace

FieldName parseFieldName(std::string_view text) {
  const size_t dot = text.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == text.size()) {
    throw UsageError(fmt::format("'{}' names no field (write REGISTER.FIELD)", text));
  }
  return {std::string(text.substr(0, dot)), std::string(text.substr(dot + 1))};
}

Assignment parseAssignment(std::string_view text) {
  text = trimmed(text);
  const size_t equals = text.find('=');
  const std::string_view name = trimmed(text.substr(0, equals));
  const std::string_view value =
      equals == std::string_view::npos ? "" : trimmed(text.substr(equals + 1));
  if (name.empty() || value.empty()) {
    throw UsageError(fmt::format("'{}' is no assignment (write REGISTER.FIELD=VALUE)", text));
  }
  return {parseFieldName(name), std::string(value)};
}

nlohmann::ordered_json toJson(const Assignment& assignment, bool raw) {
  return {{"register", assignment.name.reg},
          {"field", assignment.name.field},
          {raw ? "value" : "text", assignment.value}};
}

std::vector<Step> readPlan(const std::string& file) {
  const std::string reason = whyUnreadable(file);
  std::ifstream in(file);
  if (!reason.empty() || !in) {
    throw Failure(fmt::format("{}: {}", file, reason.empty() ? "cannot be read" : reason));
  }
  std::stringstream text;
  text << in.rdbuf();
  size_t number = 0;
  try {
    return parsePlan(text, number);
  } catch (const UsageError& e) {
    throw UsageError(fmt::format("{}: {}", mapPlace(file, number, 0), e.what()));
  }
}

}  // namespace korureg
