#include "KoruRegFile/RegisterFileCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/RegisterRecord.h"
#include "Orb/Printable.h"

namespace KoruRegFile {

namespace {

using Severity = RegisterFileProblem::Severity;

constexpr size_t longestQuote = 40;

// The text in quotes, cut when long, and escaped: a map may be any file, and the result ends up on
// a terminal.
std::string quoted(std::string_view text) {
  size_t end = std::min(text.size(), longestQuote);
  const auto isInside = [&](size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80;
  };
  for (int i = 0; i < 3 && end < text.size() && isInside(end); ++i) --end;
  std::string result = fmt::format("'{}'", Orb::printable(text.substr(0, end)));
  if (text.size() > longestQuote) {
    fmt::format_to(std::back_inserter(result), "... ({} bytes)", text.size());
  }
  return result;
}

// Numbers are decimal; who has written another one hears how to.
std::string decimalAdvice(std::string_view field) {
  try {
    return fmt::format(": numbers are decimal, write {}", parseNumber(field, UINT32_MAX));
  } catch (const std::exception&) {
    return ": a decimal number up to 4294967295 is needed";
  }
}

// What is said about a faulty field.
std::string faultText(const RecordProblem& problem, uint8_t addrBlockSize) {
  const std::string field = quoted(problem.field);
  switch (problem.fault) {
    case RecordFault::unsupportedWidth:
      return fmt::format("Unsupported register width {}, at most {}", field, maxRegisterWidth);
    case RecordFault::unknownType:
      return fmt::format(
          "Unknown register type {}: write reserved, const, cfg, sts, counter or ctl", field);
    case RecordFault::extraFields:
      return fmt::format("Extraneous field(s) from {} on", field);
    case RecordFault::missingFields:
      return fmt::format("Incomplete line: {} of {} fields", problem.fieldCount,
                         registerFieldCount);
    case RecordFault::addressWraps:
      return fmt::format("Address wraps around: {} times the block size {} exceeds 32 bits", field,
                         addrBlockSize);
    case RecordFault::emptyName:
      return "Empty name";
    case RecordFault::nulInName:
      return fmt::format("NUL byte in the name {}: no access by name reaches the register", field);
    case RecordFault::oddWriteable:
      return fmt::format("Neither true nor false: {} makes the register writeable", field);
    case RecordFault::badNumber:
    case RecordFault::badWidth:
      return fmt::format("{} {}{}", refusalText(problem.fault), field,
                         decimalAdvice(problem.field));
    default:
      return fmt::format("{} {}", refusalText(problem.fault), field);
  }
}

bool isRefused(RecordFault fault) { return refusalText(fault) != nullptr; }

// Goes through a map line by line and keeps what it needs to recognise duplicates.
class Checker : private RecordProblemSink {
 public:
  explicit Checker(uint8_t addrBlockSize) : addrBlockSize_(addrBlockSize) {
    if (addrBlockSize == 0) throw std::invalid_argument("the address block size is 0");
  }

  // `source` is a path or a stream.
  template <class Source>
  std::vector<RegisterFileProblem> check(Source& source) {
    try {
      RecordLines lines(source);
      checkHeader(lines);
      std::string_view line;
      while (lines.next(line)) checkRecord(lines.number(), line);
    } catch (const RegisterFileError& error) {
      line_ = error.line();
      report(error.column(), Severity::error, error.what());
    }
    return finish();
  }

 private:
  struct First {
    size_t line;
    Orb::String name;
  };

  void checkHeader(RecordLines& lines) {
    line_ = 1;
    std::string_view line;
    if (!lines.next(line)) {
      report(1, Severity::error, "Wrong CSV header: the file is empty");
    } else if (line != registerFileHeader) {
      report(1, Severity::error,
             fmt::format("Wrong CSV header {}, expected '{}'", quoted(line), registerFileHeader));
    }
  }

  void checkRecord(size_t number, std::string_view line) {
    line_ = number;
    numberIsUsable_ = true;
    fieldCount_ = registerFieldCount;
    const Register reg = parseRecord(line, addrBlockSize_, *this);
    const auto [named, nameIsNew] = byName_.try_emplace(reg.name, line_);
    if (!nameIsNew && fieldCount_ > 1) {
      report(line.find(',') + 2, Severity::warning,
             fmt::format("Duplicate name {}, first in line {}", quoted(reg.name), named->second));
    }
    if (!numberIsUsable_) return;
    const auto [placed, addressIsNew] = byAddress_.try_emplace(reg.address, First{line_, reg.name});
    if (!addressIsNew && fieldCount_ > 0) {
      report(1, Severity::warning,
             fmt::format("Duplicate address {}, first in line {} as {}", reg.address,
                         placed->second.line, quoted(placed->second.name)));
    }
  }

  void problem(const RecordProblem& problem) override {
    if (problem.fault == RecordFault::badNumber) numberIsUsable_ = false;
    if (problem.fault == RecordFault::missingFields) fieldCount_ = problem.fieldCount;
    report(problem.column, isRefused(problem.fault) ? Severity::error : Severity::warning,
           faultText(problem, addrBlockSize_));
  }

  void report(size_t column, Severity severity, std::string text) {
    if (problems_.size() < maxRegisterFileProblems) {
      problems_.push_back({line_, column, severity, std::move(text)});
      return;
    }
    if (omitted_++ == 0) firstOmittedLine_ = line_;
    if (severity == Severity::error) ++omittedErrors_;
  }

  std::vector<RegisterFileProblem> finish() {
    if (omitted_ > 0) {
      problems_.push_back({firstOmittedLine_, 0,
                           omittedErrors_ > 0 ? Severity::error : Severity::warning,
                           fmt::format("{} more problems from here on, {} of them errors", omitted_,
                                       omittedErrors_),
                           omitted_, omittedErrors_});
    }
    return std::move(problems_);
  }

  const uint8_t addrBlockSize_;
  std::vector<RegisterFileProblem> problems_;
  size_t omitted_ = 0;
  size_t omittedErrors_ = 0;
  size_t firstOmittedLine_ = 0;
  // The first line of each name and of each address.
  boost::unordered_flat_map<Orb::String, size_t, Orb::StringHash, std::equal_to<>> byName_;
  boost::unordered_flat_map<uint32_t, First> byAddress_;
  // Of the current line.
  size_t line_ = 0;
  uint32_t fieldCount_ = 0;
  bool numberIsUsable_ = true;
};

}  // namespace

std::vector<RegisterFileProblem> checkRegisterFile(const char* path, uint8_t addrBlockSize) {
  return Checker(addrBlockSize).check(path);
}

std::vector<RegisterFileProblem> checkRegisterFile(std::istream& in, uint8_t addrBlockSize) {
  return Checker(addrBlockSize).check(in);
}

}  // namespace KoruRegFile
