#include "agent/ChipFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "KoruRegFile/Utils.h"
#include "Orb/Trace.h"

namespace Agent {

namespace {

namespace fs = std::filesystem;
using KoruRegFile::ShadowFieldKey;
using KoruRegFile::ShadowFieldValue;

Orb::TraceHandle trace("korud");

// A saved configuration has one field a line: address, start, size and value; the last line says
// how many there are.
constexpr const char* lineFormat = "{} {} {} {}\n";
constexpr const char* endFormat = "end {}\n";

[[noreturn]] void throwErrno(const char* what, const std::string& path) {
  throw std::system_error(errno, std::generic_category(), fmt::format("cannot {} {}", what, path));
}

std::string ownDirectory(const std::string& stateDirectory) {
  const fs::path directory = fs::path(stateDirectory) / "korud";
  fs::create_directories(directory);
  fs::permissions(directory, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
  return directory.string();
}

void writeAll(int fd, const std::string& text, const std::string& path) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throwErrno("write", path);
    done += static_cast<size_t>(count);
  }
}

void remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) throwErrno("remove", path);
}

}  // namespace

ChipFiles::ChipFiles(const std::string& stateDirectory, const std::string& chip)
    : savedPath_(ownDirectory(stateDirectory) + '/' + chip + ".saved"),
      dirtyPath_(ownDirectory(stateDirectory) + '/' + chip + ".dirty") {}

std::optional<std::vector<ShadowFieldValue>> ChipFiles::saved() const {
  try {
    return readSaved();
  } catch (const std::runtime_error& e) {
    ORB_TRACE(trace, 0, "{}; set aside", e.what());
    fs::rename(savedPath_, savedPath_ + ".damaged");
    return std::nullopt;
  }
}

std::optional<std::vector<ShadowFieldValue>> ChipFiles::readSaved() const {
  std::ifstream in(savedPath_);
  if (!in) {
    if (!fs::exists(savedPath_)) return std::nullopt;
    throw std::runtime_error(fmt::format("cannot open {}", savedPath_));
  }
  std::vector<ShadowFieldValue> values;
  std::string line;
  while (std::getline(in, line)) {
    uint32_t address = 0;
    unsigned start = 0;
    unsigned size = 0;
    uint32_t value = 0;
    int used = -1;
    const int found =
        std::sscanf(line.c_str(), "%u %u %u %u%n", &address, &start, &size, &value, &used);
    if (found == 4 && static_cast<size_t>(used) == line.size() && start <= 31 && size - 1 <= 31) {
      values.emplace_back(
          ShadowFieldKey(address, static_cast<uint8_t>(start), static_cast<uint8_t>(size)), value);
      continue;
    }
    if (line + '\n' == fmt::format(endFormat, values.size())) return values;
    throw std::runtime_error(
        fmt::format("{}:{}: not a saved field: '{}'", savedPath_, values.size() + 1, line));
  }
  throw std::runtime_error(fmt::format("{} ends too early", savedPath_));
}

void ChipFiles::savedIs(const std::vector<ShadowFieldValue>& values) const {
  fmt::memory_buffer text;
  for (const ShadowFieldValue& value : values) {
    const ShadowFieldKey& key = value.key();
    fmt::format_to(std::back_inserter(text), lineFormat, key.address(), key.start(), key.size(),
                   value.value());
  }
  fmt::format_to(std::back_inserter(text), endFormat, values.size());
  const std::string next = savedPath_ + ".next";
  const KoruRegFile::Utils::UnixFdRes file(
      ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (file.fd() < 0) throwErrno("make", next);
  writeAll(file.fd(), fmt::to_string(text), next);
  if (::rename(next.c_str(), savedPath_.c_str()) != 0) throwErrno("put in place", savedPath_);
}

void ChipFiles::savedDel() const { remove(savedPath_); }

bool ChipFiles::isDirty() const { return fs::exists(dirtyPath_); }

void ChipFiles::dirtyIs(bool dirty) const {
  if (!dirty) return remove(dirtyPath_);
  const KoruRegFile::Utils::UnixFdRes file(
      ::open(dirtyPath_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (file.fd() < 0) throwErrno("make", dirtyPath_);
}

}  // namespace Agent
