#include "board/chips/WantedRegisters.h"

#include <algorithm>

namespace Board {

std::vector<std::pair<uint32_t, uint32_t>> wantedRegisters(
    const KoruRegFile::ShadowFieldsSm& shadowSm) {
  std::vector<std::pair<uint32_t, uint32_t>> registers;
  for (const auto& [address, value] : shadowSm.regConfig()) registers.emplace_back(address, value);
  std::sort(registers.begin(), registers.end());
  return registers;
}

}  // namespace Board
