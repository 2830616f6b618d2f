// korureg: a chip's registers from the command line.

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "korureg/Command.h"
#include "korureg/Tool.h"

namespace {

// With the same command line. Beside this program where both were built, or where it is installed.
int become(const char* name, const char* needed, char** argv) {
  namespace fs = std::filesystem;
  const fs::path directory = fs::read_symlink("/proc/self/exe").parent_path();
  fs::path program;
  for (const char* place : {"", "../libexec/koruregfile"}) {
    program = directory / place / name;
    ::execv(program.c_str(), argv);
    if (errno != ENOENT) break;
  }
  if (errno == ENOENT) {
    throw korureg::Failure(
        fmt::format("{} is missing; it is built where {} is", program.string(), needed));
  }
  throw korureg::Failure(
      fmt::format("cannot run {}: {}", program.string(), std::generic_category().message(errno)));
}

}  // namespace

int main(int argc, char** argv) {
  const korureg::Programs programs = {
      .top = [argv](const auto&) { return become("korureg-top", "ncurses", argv); },
      .web = [argv](const auto&) { return become("korureg-web", "libmicrohttpd", argv); }};
  return korureg::runTool(argc, argv, programs);
}
