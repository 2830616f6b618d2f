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
int execTop(char** argv) {
  namespace fs = std::filesystem;
  const fs::path directory = fs::read_symlink("/proc/self/exe").parent_path();
  fs::path program;
  for (const char* place : {"korureg-top", "../libexec/koruregfile/korureg-top"}) {
    program = directory / place;
    ::execv(program.c_str(), argv);
    if (errno != ENOENT) break;
  }
  if (errno == ENOENT) {
    throw korureg::Failure(
        fmt::format("{} is missing; it is built where ncurses is", program.string()));
  }
  throw korureg::Failure(
      fmt::format("cannot run {}: {}", program.string(), std::generic_category().message(errno)));
}

}  // namespace

int main(int argc, char** argv) {
  return korureg::runTool(argc, argv,
                          [argv](const korureg::TopArguments&) { return execTop(argv); });
}
