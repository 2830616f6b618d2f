#pragma once

// What is to be written to fields, as people write it: "config.gain=x2" on the command line, and
// lines "power0 config.gain = x2" in a plan.

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace korureg {

struct FieldName {
  std::string reg;
  std::string field;
};

// "config.gain": the register's name ends at the last dot. Throws UsageError.
FieldName parseFieldName(std::string_view text);

struct Assignment {
  FieldName name;
  std::string value;
};

// "config.gain = x2". Throws UsageError.
Assignment parseAssignment(std::string_view text);

// For a request: with a value that stands for something, or with raw numbers.
nlohmann::ordered_json toJson(const Assignment& assignment, bool raw = false);

// A line of a plan.
struct Step {
  size_t line;
  std::string chip;
  Assignment assignment;
};

// All steps of a plan, none of which is about the same field as another. Throws UsageError with
// the line of the first one that is wrong, and Failure for a file that cannot be read to its end.
std::vector<Step> readPlan(const std::string& file);

}  // namespace korureg
