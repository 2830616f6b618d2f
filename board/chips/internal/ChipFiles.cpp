#include "board/chips/internal/ChipFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "Orb/Errno.h"
#include "Orb/Trace.h"
#include "board/chips/StateFiles.h"

namespace Board {

namespace {

using KoruRegFile::ShadowFieldKey;

Orb::TraceHandle trace("korud");

// Kept fields are written one a line: address, start, size, value and, if it is known, the
// register; the last line says how many there are.
constexpr const char* lineFormat = "{} {} {} {}{}{}\n";
constexpr const char* endFormat = "end {}";

std::string textOf(const std::vector<KeptField>& fields) {
  fmt::memory_buffer text;
  for (const KeptField& field : fields) {
    const ShadowFieldKey& key = field.value.key();
    // (No map has a name of more than one line.)
    const std::string& reg = field.reg.find('\n') == std::string::npos ? field.reg : std::string();
    fmt::format_to(std::back_inserter(text), lineFormat, key.address(), key.start(), key.size(),
                   field.value.value(), reg.empty() ? "" : " ", reg);
  }
  fmt::format_to(std::back_inserter(text), endFormat, fields.size());
  text.push_back('\n');
  return fmt::to_string(text);
}

std::optional<KeptField> fieldOf(const std::string& line) {
  uint32_t address = 0;
  unsigned start = 0;
  unsigned size = 0;
  uint32_t value = 0;
  int used = -1;
  const int found =
      std::sscanf(line.c_str(), "%u %u %u %u%n", &address, &start, &size, &value, &used);
  if (found != 4 || start > 31 || size - 1 > 31) return std::nullopt;
  const std::string rest = line.substr(static_cast<size_t>(used));
  if (!rest.empty() && (rest[0] != ' ' || rest.size() == 1)) return std::nullopt;
  const ShadowFieldKey key(address, static_cast<uint8_t>(start), static_cast<uint8_t>(size));
  return KeptField{{key, value}, rest.empty() ? rest : rest.substr(1)};
}

class Damaged : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws Damaged.
std::vector<KeptField> fieldsOf(const std::string& text, const std::string& path) {
  std::vector<KeptField> fields;
  for (size_t begin = 0;;) {
    const size_t end = text.find('\n', begin);
    if (end == std::string::npos) throw Damaged(fmt::format("{} ends too early", path));
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    const bool isLast = begin == text.size() && line.starts_with("end");
    if (isLast && line == fmt::format(endFormat, fields.size())) return fields;
    const auto field = fieldOf(line);
    if (!field) {
      throw Damaged(fmt::format("{}:{}: not a saved field: '{}'", path, fields.size() + 1, line));
    }
    fields.push_back(*field);
  }
}

std::optional<std::string> textAt(const std::string& path) {
  const Orb::Descriptor file = openOwn(path, O_RDONLY);
  if (!file) return std::nullopt;
  return readAll(file, path);
}

// Nothing for a file that is not there, or was set aside.
std::optional<std::vector<KeptField>> fieldsAt(const std::string& path) {
  const auto text = textAt(path);
  if (!text) return std::nullopt;
  try {
    return fieldsOf(*text, path);
  } catch (const Damaged& e) {
    ORB_TRACE(trace, 0, "{}; set aside", e.what());
  }
  if (std::rename(path.c_str(), (path + ".damaged").c_str()) != 0) {
    Orb::throwErrno("cannot set {} aside", path);
  }
  return std::nullopt;
}

}  // namespace

ChipFiles::ChipFiles(const std::string& stateDirectory, const std::string& chip)
    : directory_(stateDirectory + "/korud"),
      savedPath_(directory_ + '/' + chip + ".saved"),
      togetherPath_(directory_ + '/' + chip + ".together"),
      namesPath_(directory_ + '/' + chip + ".names"),
      dirtyPath_(directory_ + '/' + chip + ".dirty") {}

void ChipFiles::prepare() const { makeOwnDirectory(directory_); }

std::optional<std::vector<KeptField>> ChipFiles::saved() const { return fieldsAt(savedPath_); }

void ChipFiles::savedIs(const std::vector<KeptField>& fields) const {
  replaceFile(savedPath_, textOf(fields));
}

void ChipFiles::savedDel() const { removeFile(savedPath_); }

std::vector<KeptField> ChipFiles::together() const {
  return fieldsAt(togetherPath_).value_or(std::vector<KeptField>());
}

void ChipFiles::togetherIs(const std::vector<KeptField>& fields) const {
  replaceFile(togetherPath_, textOf(fields));
}

void ChipFiles::togetherDel() const { removeFile(togetherPath_); }

std::vector<KeptField> ChipFiles::names() const {
  return fieldsAt(namesPath_).value_or(std::vector<KeptField>());
}

void ChipFiles::namesAre(const std::vector<KeptField>& fields) const {
  const std::string text = textOf(fields);
  if (textAt(namesPath_) != text) replaceFile(namesPath_, text);
}

bool ChipFiles::isDirty() const {
  struct stat status;
  if (::lstat(dirtyPath_.c_str(), &status) == 0) return true;
  if (errno == ENOENT) return false;
  Orb::throwErrno("cannot look at {}", dirtyPath_);
}

void ChipFiles::dirtyIs(bool dirty) const {
  if (!dirty) return removeFile(dirtyPath_);
  if (::mknod(dirtyPath_.c_str(), S_IFREG | S_IRUSR | S_IWUSR, 0) != 0 && errno != EEXIST) {
    Orb::throwErrno("cannot make {}", dirtyPath_);
  }
}

}  // namespace Board
