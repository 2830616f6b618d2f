#include "board/devices/Recording.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <system_error>

#include "Orb/Descriptor.h"
#include "Orb/Printable.h"

namespace Board {

using KoruRegFile::TransportFailure;

RecordingError::~RecordingError() = default;

namespace {

using Kind = Recorded::Kind;

constexpr const char* kindNames[] = {"holds", "unasked", "read", "write", "gap", "end"};
constexpr const char* busError = "bus";
constexpr size_t mostWords = 12;
constexpr double longestTime = 1e9;  // seconds; as nanoseconds they fit their type

bool isPlain(std::string_view word) {
  constexpr std::string_view others = "_.-+/[]<>@";
  return !word.empty() && word.size() < longestRecord &&
         std::all_of(word.begin(), word.end(), [&](unsigned char c) {
           return std::isalnum(c) != 0 || others.find(static_cast<char>(c)) != others.npos;
         });
}

std::string inQuotes(std::string_view text) {
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

std::string word(std::string_view text) {
  return isPlain(text) ? std::string(text) : inQuotes(text);
}

std::string secondsText(std::chrono::nanoseconds time) {
  const auto count = std::max<int64_t>(time.count(), 0);
  return fmt::format("{}.{:09}", count / 1'000'000'000, count % 1'000'000'000);
}

// As much of a reason as a line takes, whatever becomes of it between quotes.
std::string failureText(const TransportFailure& failure) {
  const std::string_view reason = failure.reason;
  return fmt::format(" failed {} {}", failure.isBusError ? busError : std::to_string(failure.error),
                     inQuotes(reason.substr(0, longestRecord / 16)));
}

struct Refused {
  std::string why;
};

// The words of a line, one after the other.
class Words {
 public:
  explicit Words(std::string_view line) {
    while (true) {
      line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
      if (line.empty()) return;
      if (words_.size() == mostWords) throw Refused{"it has too many words"};
      words_.push_back(line.front() == '"' ? takeQuoted(line) : takePlain(line));
    }
  }

  bool isEnd() const { return at_ == words_.size(); }
  const std::string& next(const char* what) {
    if (isEnd()) throw Refused{fmt::format("{} is missing", what)};
    return words_[at_++];
  }
  bool take(std::string_view word) {
    if (isEnd() || words_[at_] != word) return false;
    ++at_;
    return true;
  }
  template <class Number>
  Number number(const char* what) {
    std::string_view text = next(what);
    const bool isHex = text.starts_with("0x");
    if (isHex) text.remove_prefix(2);
    Number number = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, isHex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size()) {
      throw Refused{fmt::format("{} cannot be '{}'", what, words_[at_ - 1])};
    }
    return number;
  }
  std::chrono::nanoseconds time(const char* what) {
    const std::string& text = next(what);
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isTime = error == std::errc() && end == text.data() + text.size();
    if (!isTime || !(seconds >= 0 && seconds < longestTime)) {
      throw Refused{fmt::format("{} cannot be '{}'", what, text)};
    }
    return std::chrono::nanoseconds(std::llround(seconds * 1e9));
  }

 private:
  static std::string takePlain(std::string_view& line) {
    const std::string_view word = line.substr(0, std::min(line.find(' '), line.size()));
    if (!isPlain(word)) throw Refused{fmt::format("'{}' has to be between quotes", word)};
    line.remove_prefix(word.size());
    return std::string(word);
  }
  static std::string takeQuoted(std::string_view& line) {
    size_t end = 1;
    while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
    const auto text = nlohmann::json::parse(line.substr(0, end + 1), nullptr, false);
    if (!text.is_string()) throw Refused{"what is between quotes is no text"};
    line.remove_prefix(std::min(end + 1, line.size()));
    return text.get<std::string>();
  }

  std::vector<std::string> words_;
  size_t at_ = 0;
};

TransportFailure failureIn(Words& words) {
  TransportFailure failure;
  if (words.take(busError)) {
    failure.isBusError = true;
  } else {
    failure.error = words.number<int>("the errno");
  }
  failure.reason = words.next("the reason");
  return failure;
}

Recorded recordIn(Words& words) {
  Recorded record;
  record.chip = words.next("the chip");
  if (record.chip == "end" && words.isEnd()) return record;
  const std::string& name = words.next("what happened");
  const auto found = std::find(std::begin(kindNames), std::end(kindNames), name);
  record.kind = static_cast<Kind>(found - std::begin(kindNames));
  if (found == std::end(kindNames) || record.kind == Kind::end) {
    throw Refused{fmt::format("'{}' is nothing that happens", name)};
  }
  if (record.kind == Kind::gap) {
    record.missing = words.number<uint64_t>("how many are missing");
    return record;
  }
  record.reg = words.next("the register");
  if (record.kind == Kind::unasked) return record;
  const bool isRead = record.kind == Kind::read;
  if (isRead && words.take("failed")) {
    record.failure = failureIn(words);
  } else {
    record.value = words.number<uint32_t>("the value");
    if (record.kind == Kind::write && words.take("failed")) record.failure = failureIn(words);
  }
  if (record.kind != Kind::holds && words.take("at")) {
    record.times.emplace();
    record.times->at = words.time("the time");
    if (!words.take("took")) throw Refused{"'took' is missing"};
    record.times->took = words.time("the time that it took");
  }
  return record;
}

[[noreturn]] void refuse(const std::string& path, size_t line, const std::string& why) {
  throw RecordingError(fmt::format("{}:{}: {}", path, line, Orb::printable(why)));
}

// The line, with what follows it left in the text. One without an end was cut.
std::string_view takeLine(std::string_view& text, const std::string& path, size_t number) {
  const size_t end = text.substr(0, longestRecord + 1).find('\n');
  if (end == text.npos && text.size() > longestRecord) {
    refuse(path, number, fmt::format("a line has at most {} bytes", longestRecord));
  }
  if (end == text.npos) refuse(path, number, "the line was cut short");
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return line;
}

[[noreturn]] void cannotRead(const std::string& path, const std::string& why) {
  throw RecordingError(fmt::format("cannot read the recording {}: {}", path, why));
}

std::string reasonOf(int error) { return std::generic_category().message(error); }

bool isUnchanged(const struct stat& a, const struct stat& b) {
  return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

std::string accessText(bool isWrite, std::string_view reg, uint32_t value) {
  if (!isWrite) return fmt::format("read {}", word(reg));
  return fmt::format("write {} {:#x}", word(reg), value);
}

std::string recordText(const Recorded& record) {
  const char* const kind = kindNames[static_cast<size_t>(record.kind)];
  if (record.kind == Kind::end) return kind;
  // (A chip of that name would be the end.)
  std::string text =
      fmt::format("{} {}", record.chip == "end" ? inQuotes(record.chip) : word(record.chip), kind);
  if (record.kind == Kind::gap) return text + fmt::format(" {}", record.missing);
  text += ' ' + word(record.reg);
  if (record.kind == Kind::unasked) return text;
  const bool hasValue = record.kind != Kind::read || !record.failure;
  if (hasValue) text += fmt::format(" {:#x}", record.value);
  if (record.failure) text += failureText(*record.failure);
  if (record.times) {
    text += fmt::format(" at {} took {}", secondsText(record.times->at),
                        secondsText(record.times->took));
  }
  return text;
}

std::vector<Recorded> recordsIn(std::string_view text, const std::string& path) {
  std::vector<Recorded> records;
  size_t number = 1;
  const std::string_view header = takeLine(text, path, number);
  if (header != recordingHeader) {
    refuse(path, number,
           fmt::format("a recording begins with '{}', and this with '{}'", recordingHeader,
                       header.substr(0, 64)));
  }
  while (!text.empty()) {
    const std::string_view line = takeLine(text, path, ++number);
    if (line.empty() || line.starts_with('#')) continue;
    if (!records.empty() && records.back().kind == Kind::end) {
      refuse(path, number, "nothing stands behind the end");
    }
    try {
      Words words(line);
      records.push_back(recordIn(words));
      if (!words.isEnd()) throw Refused{"there is more than a record in the line"};
    } catch (const Refused& refused) {
      refuse(path, number, refused.why);
    }
    records.back().line = number;
  }
  if (records.empty() || records.back().kind != Kind::end) {
    refuse(path, number,
           "the recording was cut short; with a line 'end' behind it, what is there can be used");
  }
  return records;
}

std::vector<Recorded> readRecording(const std::string& path) {
  // (Without O_NONBLOCK the opening of a pipe waits for a writer.)
  const Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat before, after;
  if (!file || ::fstat(file.get(), &before) != 0) cannotRead(path, reasonOf(errno));
  if (S_ISDIR(before.st_mode)) cannotRead(path, "it is a directory");
  if (!S_ISREG(before.st_mode)) cannotRead(path, "it is no regular file");
  std::string text;
  char piece[1 << 16];
  for (ssize_t count; (count = ::read(file.get(), piece, sizeof piece)) != 0;) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) cannotRead(path, reasonOf(errno));
    text.append(piece, static_cast<size_t>(count));
    if (text.size() > longestRecording) {
      cannotRead(path, fmt::format("it has more than {} bytes", longestRecording));
    }
  }
  if (::fstat(file.get(), &after) != 0 || !isUnchanged(before, after)) {
    cannotRead(path, "somebody writes to it");
  }
  return recordsIn(text, path);
}

}  // namespace Board
