#pragma once

// Fields of a chip that are written together: checked before anything is touched, each hardware
// register written once at most, and after a kill either all of them hold or none. Plain values.

#include <cstdint>
#include <vector>

#include "Orb/String.h"
#include "board/Export.h"
#include "board/description/Description.h"

namespace Board {

// In which order the registers are written.
enum class RegisterOrder { ofMap, asGiven };

// A field of the chip's description (BoardKeeper::field()), and what it is to hold.
struct FieldWrite {
  const Field* field;
  uint32_t value;
};

struct FieldChange {
  const Field* field;
  uint32_t was;
  uint32_t value;
};

struct RegisterChange {
  uint32_t address;
  Orb::String name;
  uint32_t from;  // as last written
  uint32_t to;    // what is sent
  // Of that, the bits that are sent once, and are 0 afterwards.
  uint32_t sentOnce = 0;
};

// What writing them would do. Good until the chip is described otherwise or written to.
struct WritePlan {
  std::vector<FieldChange> fields;        // each once, with its last value
  std::vector<RegisterChange> registers;  // those that are written, in their order
};
}  // namespace Board
