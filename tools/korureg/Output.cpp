#include "korureg/Output.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace korureg {

namespace {

bool hasColour() {
  static const bool colour = [] {
    const char* noColour = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) && (noColour == nullptr || *noColour == '\0');
  }();
  return colour;
}

std::string styled(const char* style, const std::string& text) {
  return hasColour() ? fmt::format("\033[{}m{}\033[0m", style, text) : text;
}

void write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace

std::string bold(const std::string& text) { return styled("1", text); }
std::string red(const std::string& text) { return styled("31", text); }

void Table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = printable(cell);
  rows_.push_back(std::move(cells));
}

void Table::print() const {
  std::vector<size_t> widths;
  for (size_t i = 0; i < columns_.size(); ++i) {
    size_t width = columns_[i].heading.size();
    for (const auto& row : rows_) width = std::max(width, Orb::codePoints(row[i]));
    widths.push_back(width);
  }
  const auto line = [&](const auto& cellOf) {
    std::string text;
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (i > 0) text += "  ";
      const std::string cell = cellOf(i);
      const std::string padding(widths[i] - Orb::codePoints(cell), ' ');
      text += columns_[i].align == Align::right ? padding + cell : cell + padding;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  };
  write(bold(line([&](size_t i) { return columns_[i].heading; })) + "\n");
  for (const auto& row : rows_) write(line([&](size_t i) { return row[i]; }) + "\n");
}

void printJson(const nlohmann::ordered_json& document, bool indented) {
  // Names may hold bytes that are no UTF-8.
  write(document.dump(indented ? 2 : -1, ' ', false,
                      nlohmann::ordered_json::error_handler_t::replace) +
        "\n");
  std::fflush(stdout);
}

void printLine(const std::string& text) {
  write(text + "\n");
  std::fflush(stdout);
}

void printError(const std::string& text) {
  std::fflush(stdout);
  const std::string line = "korureg: " + printable(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string hex(uint64_t value, uint32_t width) {
  return fmt::format("0x{:0{}x}", value, std::max(1u, (width + 3) / 4));
}

std::string bits(uint32_t value, uint32_t width) {
  std::string text;
  const auto used = static_cast<uint32_t>(std::bit_width(value));
  for (uint32_t bit = std::max(width, used); bit-- > 0;) {
    text += (value >> bit & 1) != 0 ? '1' : '0';
    if (bit % 4 == 0 && bit != 0) text += ' ';
  }
  return text;
}

std::string timeText(std::chrono::system_clock::time_point time) {
  const auto now = std::chrono::floor<std::chrono::milliseconds>(time);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(now);
  const std::tm local = fmt::localtime(std::chrono::system_clock::to_time_t(seconds));
  const long minutes = std::labs(local.tm_gmtoff) / 60;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}{}{:02}:{:02}", local, (now - seconds).count(),
                     local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::string timeNow() { return timeText(std::chrono::system_clock::now()); }

bool outputIsComplete() { return std::fflush(stdout) == 0 && std::ferror(stdout) == 0; }

}  // namespace korureg
