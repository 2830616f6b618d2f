#include "korureg/MapPlace.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "korureg/Output.h"

namespace korureg {

std::string mapPlace(const std::string& file, size_t line, size_t column) {
  std::string place = file.empty() ? "''" : printable(file);
  if (line != 0) place += fmt::format(":{}", line);
  if (line != 0 && column != 0) place += fmt::format(":{}", column);
  return place;
}

std::string whyUnreadable(const std::string& file) {
  struct stat status;
  if (::stat(file.c_str(), &status) != 0) return std::strerror(errno);
  if (S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) return "Neither a file nor a pipe";
  return ::access(file.c_str(), R_OK) == 0 ? "" : std::strerror(errno);
}

}  // namespace korureg
