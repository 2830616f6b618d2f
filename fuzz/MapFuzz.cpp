// Register maps: what is read is found again, and what the checker calls sound can be read.

#include <algorithm>
#include <sstream>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/RegisterFileCheck.h"
#include "Orb/Trace.h"
#include "fuzz/Input.h"

using namespace KoruRegFile;

namespace {

void everyRegisterIsFound(const RegisterFile& map) {
  for (const Register& reg : map.registers()) {
    if (reg.name.view().find('\0') != std::string_view::npos) continue;
    Fuzz::require(map.hasRegName(reg.name.view()), "a register has no name");
    Fuzz::require(map.findRegisterByName(reg.name.view()).name == reg.name, "another register");
    static_cast<void>(map.regNameAtAddr(reg.address));  // which throws when there is none
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Orb::traceLevelIs("*", -1);
  Fuzz::Input input(data, size);
  const auto blockSize = static_cast<uint8_t>(1u << input.below(4));
  const std::string text = input.rest();
  std::istringstream checked(text), read(text);
  const auto problems = checkRegisterFile(checked, blockSize);
  const bool isRefused = std::any_of(problems.begin(), problems.end(), [](const auto& problem) {
    return problem.severity == RegisterFileProblem::Severity::error;
  });
  try {
    everyRegisterIsFound(RegisterFile(read, blockSize));
    Fuzz::require(!isRefused, "the checker refuses what can be read");
  } catch (const RegisterFileError&) {
    Fuzz::require(isRefused, "the checker lets through what cannot be read");
  }
  return 0;
}
