#include "korureg/import/ImportedMap.h"

#include <fmt/format.h>

#include "korureg/MapPlace.h"
#include "korureg/Output.h"

namespace korureg {

namespace {

constexpr size_t mostRemarks = 10'000;
constexpr size_t mostBytes = 64u << 20;
constexpr size_t mostSteps = 2'000'000;
constexpr size_t longestRemark = 400;

std::string messageAt(const FilePlace& place, const std::string& text) {
  return fmt::format("{}: {}", mapPlace(place.file ? *place.file : "", place.line, 0),
                     printable(text));
}

// What the texts of a field take.
size_t sizeOf(const ImportedField& field) {
  size_t size =
      sizeof field + field.name.size() + field.meaning.description.size() + field.notes.size();
  for (const auto& named : field.meaning.values) size += sizeof named + named.name.size();
  return size;
}

}  // namespace

ImportError::ImportError(const FilePlace& place, const std::string& text)
    : std::runtime_error(messageAt(place, text)) {}

std::string Import::Remark::message() const { return messageAt(place, text); }

void Import::remark(const FilePlace& place, const std::string& whole) {
  const std::string text = whole.substr(0, longestRemark);
  if (remarks_.size() >= mostRemarks) {
    ++omitted_;
    return;
  }
  const std::string file = place.file ? *place.file : "";
  if (told_.emplace(place.line, file + '\0' + text).second) remarks_.push_back({place, text});
}

void Import::note(std::string_view name, std::string_view description) {
  if (description.empty()) return;
  map.notes.push_back(fmt::format("{}: {}", inOneLine(name), inOneLine(description)));
  bytes_ += map.notes.back().size();
}

void Import::add(ImportedRegister reg) {
  fields_ += reg.fields.size();
  bytes_ += sizeof reg + reg.name.size() + reg.description.size();
  for (const ImportedField& field : reg.fields) bytes_ += sizeOf(field);
  if (map.registers.size() >= mostRegisters || fields_ > mostFields || bytes_ > mostBytes) {
    throw ImportError(reg.place,
                      fmt::format("from here on there is too much: a map may have {} registers, "
                                  "{} fields, and 64 MiB of text",
                                  mostRegisters, mostFields));
  }
  map.registers.push_back(std::move(reg));
}

void Import::spend(const FilePlace& place, size_t steps) {
  steps_ += steps;
  if (steps_ > mostSteps) throw ImportError(place, "arrays and derivations have no end here");
}

std::string inOneLine(std::string_view text) {
  std::string joined;
  for (const char c : text) {
    const bool isBlank = c == ' ' || c == '\t' || c == '\n' || c == '\r';
    if (!isBlank) {
      joined += c;
    } else if (!joined.empty() && joined.back() != ' ') {
      joined += ' ';
    }
  }
  if (joined.ends_with(' ')) joined.pop_back();
  return printable(joined);
}

}  // namespace korureg
