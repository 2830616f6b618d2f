#pragma once

// What korureg prints: tables for people, JSON for programs.

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/Printable.h"

namespace korureg {

// What is printed by the functions below but printLine() has gone through it (Orb/Printable.h), so
// that a strange name can neither drive the terminal nor pull a table out of line.
using Orb::printable;

// The text in bold or red, if standard output is a terminal and NO_COLOR is unset or empty.
std::string bold(const std::string& text);
std::string red(const std::string& text);

// A table with a heading; columns are as wide as their widest cell.
class Table {
 public:
  enum class Align { left, right };
  struct Column {
    std::string heading;
    Align align = Align::left;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void add(std::vector<std::string> cells);
  void print() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// Both print at once, for output that is watched as it comes.
// One JSON document, indented or on a single line.
void printJson(const nlohmann::ordered_json& document, bool indented = true);
void printLine(const std::string& text);

// "0x0040": as many digits as `width` bits have.
std::string hex(uint64_t value, uint32_t width = 0);

// "0011 1001": the bits of a value, in groups of four; more than `width` when the value has more.
std::string bits(uint32_t value, uint32_t width);

// A point in time, and the present one, as local time with milliseconds and zone,
// "2026-01-31T14:05:09.123+01:00" (ISO 8601).
std::string timeText(std::chrono::system_clock::time_point time);
std::string timeNow();

// One message on standard error, as "korureg: <text>".
void printError(const std::string& text);

// Whether everything printed so far has reached standard output.
bool outputIsComplete();

}  // namespace korureg
