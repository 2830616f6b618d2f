#pragma once

// Which bits of a chip's registers have to be read as they were written. Plain values.

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "board/Export.h"
#include "board/description/Description.h"

namespace Board {

class BOARD_EXPORT Verification {
 public:
  struct Verified {
    uint32_t mask = 0;
    std::string whyNot = {};  // when there is none
  };

  // Refers to the description.
  explicit Verification(const Chip& chip);

  Verified verified(const KoruRegFile::Register& reg) const;
  // The bits that the hardware leaves alone, as far as the description says.
  uint32_t kept(const KoruRegFile::Register& reg) const;

 private:
  const Chip& chip_;
  // By address: bits that the hardware changes.
  boost::unordered_flat_map<uint32_t, uint32_t> changing_;
};

}  // namespace Board
